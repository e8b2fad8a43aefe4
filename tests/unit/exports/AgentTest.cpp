// SPDX-License-Identifier: Apache-2.0
//
// The built library as an agent uses it: loaded by its path, with the one header that agents include.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <mirelsnap/SnapshotEngine.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using UnixSnapshotCoordinator::IUscAsync;
using UnixSnapshotCoordinator::IUscSnapshotEngine;

// The library, loaded until the program's end: what it keeps stays in its reach.
class Agent : public testing::Test {
 protected:
  void SetUp() override {
    // Every symbol that the library needs is there.
    library = dlopen(MIRELSNAP_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
  }
  template <class Function>
  Function* find(const char* name) {
    return reinterpret_cast<Function*>(dlsym(library, name));
  }
  IUscSnapshotEngine* createEngine() { return find<UscGetCreatorFunction>("GetCreatorFunction")()(); }

  void* library = nullptr;
};

TEST_F(Agent, makes_an_engine_and_releases_it) {
  IUscSnapshotEngine* engine = createEngine();
  ASSERT_NE(engine, nullptr);
  int supported = 7;
  EXPECT_EQ(engine->SupportsPITMultiVolumeSnaps(&supported), S_OK);
  EXPECT_EQ(supported, 1);
  // There is no driver in this world.
  EXPECT_EQ(engine->SupportsSnapshots(&supported), S_OK);
  EXPECT_EQ(supported, 0);
  const wchar_t* version = nullptr;
  EXPECT_EQ(engine->GetVersionString(&version), S_OK);
  EXPECT_STREQ(version, L"");
  EXPECT_EQ(engine->Release(), 0u);
}

TEST_F(Agent, finds_the_interfaces_by_the_identifiers_of_its_own_copy_of_the_header) {
  IUscSnapshotEngine* engine = createEngine();
  ASSERT_NE(engine, nullptr);
  void* out = nullptr;
  ASSERT_EQ(engine->QueryInterface(UnixInterfaces::__uuidof2<IUscAsync>(), &out), S_OK);
  auto* job = static_cast<IUscAsync*>(out);
  EXPECT_EQ(job->Wait(0), E_UNEXPECTED);
  EXPECT_EQ(job->Release(), 1u);
  EXPECT_EQ(engine->Release(), 0u);
}

TEST_F(Agent, opens_a_set_and_leaves_it) {
  IUscSnapshotEngine* engine = createEngine();
  ASSERT_NE(engine, nullptr);
  _SSGUIDPLAIN setId{};
  EXPECT_EQ(engine->StartSnapshotSet(&setId), S_OK);
  IUscSnapshotEngine* second = createEngine();
  EXPECT_EQ(second->StartSnapshotSet(&setId), USC_E_SNAPSHOT_SET_IN_PROGRESS);
  engine->Release();
  EXPECT_EQ(second->WaitForNewSnapshotSet(0), USC_S_ASYNC_FINISHED);
  second->Release();
}

TEST_F(Agent, takes_the_engines_messages) {
  auto* setHandler = find<decltype(QX_SetLogHandler)>("QX_SetLogHandler");
  ASSERT_NE(setHandler, nullptr);
  std::vector<std::wstring> messages;
  setHandler(
      [](unsigned short level, const wchar_t* message, void* context) {
        EXPECT_EQ(level, 0);
        static_cast<std::vector<std::wstring>*>(context)->emplace_back(message);
      },
      &messages);
  createEngine()->Release();
  setHandler(nullptr, nullptr);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages[0], L"MirelSnapshotEngine: GetDriverVersionDetail() failed with result = 5");
}

TEST_F(Agent, finds_the_entry_under_the_interfaces_version) {
  EXPECT_EQ(dlvsym(library, "GetCreatorFunction", "MIRELSNAP_1"), dlsym(library, "GetCreatorFunction"));
  EXPECT_NE(dlsym(library, "GetCreatorFunction"), nullptr);
}

TEST_F(Agent, frees_what_the_engine_handed_out_through_the_library) {
  // The name as a C++ agent's own reference spells it.
  auto* freeProperties = find<decltype(UnixSnapshotCoordinator::UscFreeSnapshotProperties)>(
      "_ZN23UnixSnapshotCoordinator25UscFreeSnapshotPropertiesEPNS_18_USC_SNAPSHOT_PROPE");
  ASSERT_NE(freeProperties, nullptr);
  UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP record{};
  record.OriginalVolumeName = wcsdup(L"/dev/volume");
  freeProperties(&record);
  EXPECT_EQ(record.OriginalVolumeName, nullptr);
}

// Loads the library, uses it, unloads it. 0, or the step that failed.
int loadUseAndUnload() {
  void* library = dlopen(MIRELSNAP_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return 1;
  auto* entry = reinterpret_cast<UscGetCreatorFunction*>(dlsym(library, "GetCreatorFunction"));
  if (entry == nullptr) return 2;
  IUscSnapshotEngine* engine = (*entry())();
  _SSGUIDPLAIN setId{};
  if (engine == nullptr || engine->StartSnapshotSet(&setId) != S_OK) return 3;
  if (engine->Release() != 0) return 4;
  if (dlclose(library) != 0) return 5;
  return dlopen(MIRELSNAP_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == nullptr ? 0 : 6;
}

// In a process of its own, which looks at no leaks: what the library leaves on purpose is out of reach once it is gone.
// It is a new process, not a copy of this one, in which another test may have loaded the library already.
TEST(Library, can_be_unloaded_after_use) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(loadUseAndUnload()), testing::ExitedWithCode(0), "");
}

}  // namespace
