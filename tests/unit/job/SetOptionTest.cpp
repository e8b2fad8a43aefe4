// SPDX-License-Identifier: Apache-2.0
#include "JobTest.h"
#include "Locale.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

constexpr _SSGUIDPLAIN kUnknown = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

// An engine with a set of one volume.
class SetOption : public JobTest {
 protected:
  SetOption() {
    engine.start();
    id = engine.add(volume);
    log.clear();
  }
  // The engine goes before the fixture looks at what stayed.
  void TearDown() override {
    engine.release();
    JobTest::TearDown();
  }
  unsigned int size() { return GetDoneWrapper(engine->mSnapshotSetParams->GetAt(0))->GetRelocationFileSizeInBlocks(); }
  std::wstring mountName() {
    return GetDoneWrapper(engine->mSnapshotSetParams->GetAt(0))->GetRelocationFileMountName();
  }

  Volume volume{"ext4", 16 << 20};
  Engine engine;
  _SSGUIDPLAIN id{};
};

// --- "MountPointBase"

TEST_F(SetOption, the_mount_point_base_is_the_engines) {
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L"/mnt/base"), S_OK);
  EXPECT_EQ(engine->mMountPointBase, "/mnt/base");
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L"/mnt/other"), S_OK);
  EXPECT_EQ(engine->mMountPointBase, "/mnt/other");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SetOption, keys_are_compared_without_regard_to_case) {
  EXPECT_EQ(engine->SetOption(id, L"mountpointBASE", L"/mnt/base"), S_OK);
  EXPECT_EQ(engine->mMountPointBase, "/mnt/base");
  EXPECT_EQ(engine->SetOption(id, L"RELOCATIONFILESIZE", L"7"), S_OK);
  EXPECT_EQ(size(), 7u);
  EXPECT_EQ(engine->SetOption(id, L"relocationfilemountpoint", volume.wfolder().c_str()), S_OK);
  EXPECT_EQ(mountName(), volume.wfolder());
}

TEST_F(SetOption, the_mount_point_base_needs_no_known_identifier) {
  EXPECT_EQ(engine->SetOption(kUnknown, L"MountPointBase", L"/mnt/base"), S_OK);
  EXPECT_EQ(engine->mMountPointBase, "/mnt/base");
}

TEST_F(SetOption, a_relative_mount_point_base_is_refused_with_any_identifier_in_any_state) {
  engine->mMountPointBase = "/mnt/before";
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetStarted, StateSnapshotSetInProgress,
                                    StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    engine->mState = state;
    EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L"mnt/base"), E_INVALIDARG);
    EXPECT_EQ(engine->SetOption(kUnknown, L"MountPointBase", L"mnt/base"), E_INVALIDARG);
    EXPECT_EQ(engine->SetOption({}, L"MountPointBase", L" /mnt/base"), E_INVALIDARG);
    EXPECT_EQ(engine->SetOption(kUnknown, L"MountPointBase", L"/mnt/before"), S_OK);
  }
  EXPECT_EQ(engine->mMountPointBase, "/mnt/before");
  engine->mState = StateSnapshotSetStarted;
}

TEST_F(SetOption, an_empty_mount_point_base_is_E_UNEXPECTED) {
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L""), E_UNEXPECTED);
}

TEST_F(SetOption, a_mount_point_base_that_the_locale_cannot_write_is_E_UNEXPECTED) {
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L"/mnt/\x20AC"), E_UNEXPECTED);
  EXPECT_TRUE(engine->mMountPointBase.empty());
}

TEST_F(SetOption, a_mount_point_base_is_narrowed_in_the_processs_locale) {
  const Locale utf8(kUtf8);
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L"/mnt/\x20AC"), S_OK);
  EXPECT_EQ(engine->mMountPointBase, "/mnt/\xE2\x82\xAC");
}

TEST_F(SetOption, of_a_longer_mount_point_base_4096_characters_are_kept) {
  const std::wstring longest = L"/" + std::wstring(4095, L'a');
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", longest.c_str()), S_OK);
  EXPECT_EQ(wide(engine->mMountPointBase), longest);
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", (longest + L"bcd").c_str()), S_OK);
  EXPECT_EQ(wide(engine->mMountPointBase), longest);
}

TEST_F(SetOption, a_null_mount_point_base_is_E_INVALIDARG) {
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", nullptr), E_INVALIDARG);
  EXPECT_EQ(engine->SetOption(kUnknown, L"MountPointBase", nullptr), E_INVALIDARG);
}

TEST_F(SetOption, a_shortage_of_memory_is_E_OUTOFMEMORY) {
  const FailingAllocation failing(0);
  EXPECT_EQ(engine->SetOption(id, L"MountPointBase", L"/mnt/a/base/longer/than/any/small/string"), E_OUTOFMEMORY);
}

// --- Without a set, or without a key

TEST(SetOptionWithoutASet, only_the_mount_point_base_is_taken) {
  const ScriptedDriver driver;
  const Engine engine;
  EXPECT_EQ(engine->SetOption(kUnknown, L"MountPointBase", L"/mnt/base"), S_OK);
  EXPECT_EQ(engine->mMountPointBase, "/mnt/base");
  EXPECT_EQ(engine->SetOption(kUnknown, L"MountPointBase", nullptr), E_INVALIDARG);
  EXPECT_EQ(engine->SetOption(kUnknown, L"RelocationFileSize", L"16"), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(engine->SetOption(kUnknown, L"Anything", nullptr), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(engine->SetOption(kUnknown, nullptr, nullptr), USC_E_OBJECT_NOT_FOUND);
}

TEST_F(SetOption, an_unknown_identifier_comes_before_the_null_arguments) {
  EXPECT_EQ(engine->SetOption(kUnknown, L"RelocationFileSize", nullptr), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(engine->SetOption(kUnknown, nullptr, L"16"), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(engine->SetOption(kUnknown, L"NoSuchOption", L"16"), USC_E_OBJECT_NOT_FOUND);
}

TEST_F(SetOption, null_arguments_are_E_INVALIDARG) {
  EXPECT_EQ(engine->SetOption(id, nullptr, L"16"), E_INVALIDARG);
  EXPECT_EQ(engine->SetOption(id, L"RelocationFileSize", nullptr), E_INVALIDARG);
  EXPECT_EQ(engine->SetOption(id, L"RelocationFileMountPoint", nullptr), E_INVALIDARG);
}

TEST_F(SetOption, an_unknown_key_is_E_INVALIDARG) {
  EXPECT_EQ(engine->SetOption(id, L"RelocationFileSizes", L"16"), E_INVALIDARG);
  EXPECT_EQ(engine->SetOption(id, L"", L"16"), E_INVALIDARG);
}

// --- "RelocationFileMountPoint"

TEST_F(SetOption, the_relocation_files_place_is_a_mount_point) {
  EXPECT_EQ(engine->SetOption(id, L"RelocationFileMountPoint", volume.wfolder().c_str()), S_OK);
  EXPECT_EQ(mountName(), volume.wfolder());
  EXPECT_EQ(engine->SetOption(id, L"RelocationFileMountPoint", (volume.wfolder() + L"/lost+found").c_str()),
            E_INVALIDARG);
  EXPECT_EQ(mountName(), volume.wfolder());
}

// --- "RelocationFileSize"

TEST_F(SetOption, the_relocation_files_size_is_decimal_hexadecimal_or_octal) {
  const struct {
    const wchar_t* text;
    unsigned int blocks;
  } values[] = {{L"16", 16},
                {L"0x10", 16},
                {L"0X1f", 31},
                {L"010", 8},
                {L"0", 0},
                {L"  42", 42},
                {L"+5", 5},
                {L"4294967295", 0xFFFFFFFF},
                {L"0xFFFFFFFF", 0xFFFFFFFF}};
  for (const auto& value : values) {
    EXPECT_EQ(engine->SetOption(id, L"RelocationFileSize", value.text), S_OK) << value.text;
    EXPECT_EQ(size(), value.blocks) << value.text;
  }
}

TEST_F(SetOption, an_empty_size_is_read_as_none) {
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileSize", L"16"), S_OK);
  EXPECT_EQ(engine->SetOption(id, L"RelocationFileSize", L""), S_OK);
  EXPECT_EQ(size(), 0u);
}

TEST_F(SetOption, a_size_with_anything_behind_it_or_above_32_bits_is_E_INVALIDARG) {
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileSize", L"16"), S_OK);
  for (const wchar_t* text : {L"12abc", L"12 ", L" ", L"0x", L"08", L"abc", L"1.5", L"4294967296", L"0x100000000",
                              L"-1", L"99999999999999999999999999"}) {
    EXPECT_EQ(engine->SetOption(id, L"RelocationFileSize", text), E_INVALIDARG) << text;
  }
  EXPECT_EQ(size(), 16u);
}

TEST_F(SetOption, is_legal_in_any_state) {
  for (const SnapshotState state : {StateSnapshotSetInProgress, StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    engine->mState = state;
    EXPECT_EQ(engine->SetOption(id, L"RelocationFileSize", L"16"), S_OK);
  }
  engine->mState = StateSnapshotSetStarted;
}

}  // namespace
}  // namespace test
