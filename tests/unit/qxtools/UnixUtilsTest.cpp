// SPDX-License-Identifier: Apache-2.0
#include "qxtools/UnixUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "Locale.h"
#include "LoopVolume.h"
#include "World.h"
#include "interpose/FailingMalloc.h"

namespace {

std::string narrowed(const wchar_t* text) {
  const UnixUtils::NarrowText narrow = UnixUtils::ConvertToANSI(text);
  return narrow == nullptr ? "<null>" : narrow.get();
}

std::wstring widened(const char* text) {
  const UnixUtils::WideText wide = UnixUtils::ConvertToWide(text);
  return wide == nullptr ? L"<null>" : wide.get();
}

std::string validated(const std::wstring& path) {
  const UnixUtils::NarrowText narrow = UnixUtils::ValidatePathAndConvertToANSI(path.c_str());
  return narrow == nullptr ? "<null>" : narrow.get();
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode;
}

}  // namespace

TEST(ConvertToANSI, follows_the_processs_locale) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(narrowed(L"/mnt/caf\u00E9 \U0001F600"), "/mnt/caf\xC3\xA9 \xF0\x9F\x98\x80");
  EXPECT_EQ(narrowed(L""), "");
}

TEST(ConvertToANSI, answers_null_rather_than_a_cut_or_altered_text) {
  const test::Locale plain(test::kPlain);
  EXPECT_EQ(narrowed(L"/mnt/caf\u00E9"), "<null>");
  EXPECT_EQ(narrowed(L"/mnt/a"), "/mnt/a");
  const test::Locale utf8(test::kUtf8);
  const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
  EXPECT_EQ(narrowed(surrogate), "<null>");
}

TEST(ConvertToANSI, answers_null_for_null_and_when_memory_is_short) {
  EXPECT_EQ(narrowed(nullptr), "<null>");
  const test::FailingMalloc failing;
  EXPECT_EQ(UnixUtils::ConvertToANSI(L"/mnt"), nullptr);
}

TEST(ConvertToWide, follows_the_processs_locale) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(widened("caf\xC3\xA9 \xF0\x9F\x98\x80"), L"caf\u00E9 \U0001F600");
  EXPECT_EQ(widened(""), L"");
}

TEST(ConvertToWide, answers_null_rather_than_a_cut_or_altered_text) {
  for (const char* name : {test::kPlain, test::kUtf8}) {
    const test::Locale locale(name);
    EXPECT_EQ(widened("caf\xE9"), L"<null>") << name;
    EXPECT_EQ(widened("cafe"), L"cafe") << name;
  }
}

TEST(ConvertToWide, answers_null_for_null_and_when_memory_is_short) {
  EXPECT_EQ(widened(nullptr), L"<null>");
  const test::FailingMalloc failing;
  EXPECT_EQ(UnixUtils::ConvertToWide("/mnt"), nullptr);
}

TEST(ValidatePathAndConvertToANSI, narrows_an_absolute_path) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(validated(L"/"), "/");
  EXPECT_EQ(validated(L"/mnt/caf\u00E9"), "/mnt/caf\xC3\xA9");
}

TEST(ValidatePathAndConvertToANSI, refuses_null_empty_and_relative_paths) {
  EXPECT_EQ(UnixUtils::ValidatePathAndConvertToANSI(nullptr), nullptr);
  EXPECT_EQ(validated(L""), "<null>");
  EXPECT_EQ(validated(L"mnt/a"), "<null>");
  EXPECT_EQ(validated(L"./mnt"), "<null>");
}

TEST(ValidatePathAndConvertToANSI, refuses_undecodable_paths) {
  const test::Locale plain(test::kPlain);
  EXPECT_EQ(validated(L"/mnt/caf\u00E9"), "<null>");
}

TEST(ValidatePathAndConvertToANSI, refuses_paths_that_path_max_bytes_cannot_hold) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(validated(L"/" + std::wstring(PATH_MAX - 2, L'x')).size(), std::size_t{PATH_MAX - 1});
  EXPECT_EQ(validated(L"/" + std::wstring(PATH_MAX - 1, L'x')), "<null>");
  // Bytes count, not characters.
  EXPECT_EQ(validated(L"/" + std::wstring(PATH_MAX / 2, L'\u00E9')), "<null>");
}

TEST(CreateDirectory, makes_one_directory_with_the_processs_umask) {
  const test::TempDir dir;
  EXPECT_EQ(UnixUtils::CreateDirectory((dir / "base").c_str(), 0770), 0);
  EXPECT_EQ(modeOf(dir / "base"), mode_t{S_IFDIR | 0750});
}

TEST(CreateDirectory, a_directory_that_is_there_already_is_success_and_stays_as_it_is) {
  const test::TempDir dir;
  ASSERT_EQ(mkdir((dir / "base").c_str(), 0700), 0);
  ASSERT_EQ(symlink("base", (dir / "link").c_str()), 0);
  EXPECT_EQ(UnixUtils::CreateDirectory((dir / "base").c_str(), 0770), 0);
  EXPECT_EQ(modeOf(dir / "base"), mode_t{S_IFDIR | 0700});
  EXPECT_EQ(UnixUtils::CreateDirectory((dir / "link").c_str(), 0770), 0);
}

TEST(CreateDirectory, anything_else_in_its_place_or_a_missing_parent_is_a_failure) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);
  EXPECT_EQ(UnixUtils::CreateDirectory((dir / "file").c_str(), 0770), EEXIST);
  EXPECT_EQ(UnixUtils::CreateDirectory((dir / "dangling").c_str(), 0770), EEXIST);
  EXPECT_EQ(UnixUtils::CreateDirectory((dir / "missing/base").c_str(), 0770), ENOENT);
  EXPECT_EQ(UnixUtils::CreateDirectory("", 0770), ENOENT);
  EXPECT_EQ(UnixUtils::CreateDirectory(nullptr, 0770), EINVAL);
}

TEST(RemoveDirectory, removes_one_empty_directory) {
  const test::TempDir dir;
  ASSERT_EQ(mkdir((dir / "base").c_str(), 0700), 0);
  EXPECT_EQ(UnixUtils::RemoveDirectory((dir / "base").c_str()), 0);
  EXPECT_EQ(UnixUtils::RemoveDirectory((dir / "base").c_str()), ENOENT);
}

TEST(RemoveDirectory, keeps_what_is_not_an_empty_directory) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  EXPECT_EQ(UnixUtils::RemoveDirectory(dir.path().c_str()), ENOTEMPTY);
  EXPECT_EQ(UnixUtils::RemoveDirectory((dir / "file").c_str()), ENOTDIR);
  EXPECT_EQ(access((dir / "file").c_str(), F_OK), 0);
  EXPECT_EQ(UnixUtils::RemoveDirectory(nullptr), EINVAL);
}

TEST(GetBlockDeviceNumber, is_the_devices_number_whatever_path_leads_to_it) {
  const test::LoopDevice loop(1 << 20);
  const test::TempDir dir;
  ASSERT_EQ(symlink(loop.path().c_str(), (dir / "link").c_str()), 0);
  const std::uint64_t number = makedev(loop.major(), loop.minor());
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber(loop.path().c_str()), number);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber(loop.wpath().c_str()), number);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber((dir / "link").c_str()), number);
}

TEST(GetBlockDeviceNumber, is_0_for_everything_that_is_no_block_device) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber("/dev/null"), 0u);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber((dir / "file").c_str()), 0u);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber((dir / "missing").c_str()), 0u);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber(""), 0u);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber(static_cast<const char*>(nullptr)), 0u);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber(static_cast<const wchar_t*>(nullptr)), 0u);
  const test::Locale plain(test::kPlain);
  EXPECT_EQ(UnixUtils::GetBlockDeviceNumber(L"/dev/caf\u00E9"), 0u);
}
