// SPDX-License-Identifier: Apache-2.0
//
// The relocation files of a whole request.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "RelocTest.h"

namespace test {
namespace {

namespace fs = std::filesystem;

class OrchestrationTest : public RelocTest {
 protected:
  // A mounted volume of 100,000 blocks of 512 bytes, 100,000 KB free; with the automatic size of 20,000 blocks unless
  // the driver's memory bounds it.
  std::string volume(const std::string& name) {
    const std::string device = machine.device(name);
    mFolders[device] = machine.mount(device, {100000, 200000});
    return device;
  }
  const std::string& folderOf(const std::string& device) { return mFolders[device]; }
  std::string fileOf(const std::string& device) { return folderOf(device) + "/.verrelocarea/" + device.substr(5); }

  // Adds a record for `device` with the caller's options.
  void request(const std::string& device, unsigned int size = 0, const std::string& mountPoint = "") {
    volumes.emplace_back(512, 100000, std::wstring(device.begin(), device.end()), size,
                         std::wstring(mountPoint.begin(), mountPoint.end()), false, true, 0);
  }

  int deduce(unsigned long entriesInMemory) {
    log.clear();
    driver.clearCalls();
    return singleton->deduceRelocLocations(&volumes, entriesInMemory);
  }

  // "create DEVICE FILE PID" and "delete DEVICE PID", in order.
  Lines mappingCommands() {
    Lines found;
    for (const DriverCall& call : driver.calls()) {
      const std::string volumeName = call.sent.size() == 2079 ? call.text(28) : "";
      const std::string pid = call.sent.size() == 2079 ? std::to_string(call.get<std::int32_t>(24)) : "";
      if (call.request == IOC_CREATE_RELOC_FILE_MAPPING)
        found.push_back("create " + volumeName + " " + call.text(1052) + " " + pid);
      if (call.request == IOC_DELETE_RELOC_FILE_MAPPING) found.push_back("delete " + volumeName + " " + pid);
    }
    return found;
  }
  static std::string created(const std::string& device, const std::string& file) {
    return "create " + device + " " + file + " " + std::to_string(getpid());
  }
  static std::string deleted(const std::string& device) { return "delete " + device + " " + std::to_string(getpid()); }

  // The messages of this room without those of placing and making one file.
  Lines ownMessages() {
    Lines found;
    for (const std::string& line : messages()) {
      for (const char* start : {"SVName", "Snap", "User Options", "Final options", "Reloc options", "Unable to",
                                "Not able", "Not enough Memory", "Reloc File couldnt", "Deleted"}) {
        if (line.compare(4, std::string(start).size(), start) == 0) found.push_back(line);
      }
    }
    return found;
  }

  std::list<SnapVolumeInformation> volumes;

 private:
  std::map<std::string, std::string> mFolders;
};

using Deduce = OrchestrationTest;
using Undo = OrchestrationTest;
using Clean = OrchestrationTest;

TEST_F(Deduce, an_empty_list_answers_0_and_touches_nothing) {
  EXPECT_EQ(deduce(0), 0);
  EXPECT_EQ(singleton->deduceRelocLocations(nullptr, 0), 0);
  EXPECT_EQ(log.lines().size(), 0u);
  EXPECT_EQ(driver.calls().size(), 0u);
}

// --- The four cases.

TEST_F(Deduce, without_options_fills_in_file_device_and_size) {
  const std::string a = volume("vg-a");
  request(a);
  EXPECT_EQ(deduce(1000), 0);
  const SnapVolumeInformation& record = volumes.front();
  EXPECT_EQ(record.getRelocFileName(), fileOf(a));
  EXPECT_EQ(record.getRelocVolumeName(), a);
  EXPECT_EQ(record.getRelocFileSize(), 1000u);
  EXPECT_EQ(fs::file_size(fileOf(a)), 512000u);
  EXPECT_EQ(mappingCommands(), (Lines{created(a, fileOf(a))}));
  EXPECT_EQ(ownMessages(),
            (Lines{"[6] SVName: " + a + ", RFName: " + fileOf(a) + ", RVName: " + a + ", RVSize: 1000.\n"}));
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(Deduce, without_options_and_without_a_place_fails) {
  request(machine.device("unmounted"));
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_EQ(ownMessages(), (Lines{"[3] Reloc options are not correct.\n"}));
  EXPECT_EQ(mappingCommands(), Lines());
}

TEST_F(Deduce, with_a_mount_point_fills_in_file_device_and_size) {
  const std::string a = volume("a");
  const std::string other = volume("other");
  request(a, 0, folderOf(other));
  EXPECT_EQ(deduce(1000), 0);
  const std::string file = folderOf(other) + "/.verrelocarea/a";
  const SnapVolumeInformation& record = volumes.front();
  EXPECT_EQ(record.getRelocFileName(), file);
  EXPECT_EQ(record.getRelocVolumeName(), other);
  EXPECT_EQ(record.getRelocFileSize(), 1000u);
  EXPECT_EQ(fs::file_size(file), 512000u);
  EXPECT_EQ(ownMessages(),
            (Lines{"[7] SnapVolue: " + a + ", RMountName: " + folderOf(other) + "\n",
                   "[3] SVName: " + a + ", RFName: " + file + ", RVName: " + other + ", RVSize: 1000.\n"}));
}

TEST_F(Deduce, with_a_mount_point_hands_the_volumes_blocks_on_as_the_fallback) {
  const std::string a = machine.device("unmounted");
  const std::string other = volume("other");
  request(a, 0, folderOf(other));
  EXPECT_EQ(deduce(1000000), 0);
  EXPECT_TRUE(log.has(6, "relocSizeBasedOnRelocVol: 10000, relocSizeBasedOnVol: 10000\n"));
  EXPECT_EQ(volumes.front().getRelocFileSize(), 20000u);
}

TEST_F(Deduce, with_a_wrong_mount_point_fails) {
  const std::string a = volume("a");
  request(a, 0, "/no/such/folder");
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_EQ(ownMessages(), (Lines{"[7] SnapVolue: " + a + ", RMountName: /no/such/folder\n",
                                  "[3] Unable to initialize user selected reloc option.\n"}));
}

TEST_F(Deduce, with_a_size_keeps_it) {
  const std::string a = volume("a");
  request(a, 17);
  EXPECT_EQ(deduce(1000), 0);
  const SnapVolumeInformation& record = volumes.front();
  EXPECT_EQ(record.getRelocFileName(), fileOf(a));
  EXPECT_EQ(record.getRelocVolumeName(), a);
  EXPECT_EQ(record.getRelocFileSize(), 17u);
  EXPECT_EQ(fs::file_size(fileOf(a)), 17u * 512);
  EXPECT_EQ(ownMessages(),
            (Lines{"[7] SnapVolume: " + a + " , RFSize: 17.\n",
                   "[3] SVName: " + a + ", RFName: " + fileOf(a) + ", RVName: " + a + ", RVSize: 17.\n"}));
}

TEST_F(Deduce, with_a_size_beyond_the_drivers_memory_fails) {
  const std::string a = volume("a");
  request(a, 1001);
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_EQ(ownMessages(), (Lines{"[7] SnapVolume: " + a + " , RFSize: 1001.\n",
                                  "[3] Not able to find appropriate volume for reloc file.\n"}));
}

TEST_F(Deduce, with_both_keeps_them) {
  const std::string a = volume("a");
  const std::string other = volume("other");
  request(a, 17, folderOf(other));
  EXPECT_EQ(deduce(1000), 0);
  const std::string file = folderOf(other) + "/.verrelocarea/a";
  EXPECT_EQ(volumes.front().getRelocFileName(), file);
  EXPECT_EQ(volumes.front().getRelocVolumeName(), other);
  EXPECT_EQ(volumes.front().getRelocFileSize(), 17u);
  EXPECT_EQ(ownMessages(),
            (Lines{"[6] User Options -- SnapVolName: " + a + ", RMountName: " + folderOf(other) + ", RVSize: 17.\n",
                   "[7] Final options -- SnapVolName: " + a + ", RMountName: " + folderOf(other) +
                       ", RVolName: " + other + ", RVSize: 17.\n"}));
}

TEST_F(Deduce, with_both_that_do_not_fit_fails) {
  const std::string a = volume("a");
  request(a, 17, "/no/such/folder");
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_EQ(ownMessages(),
            (Lines{"[6] User Options -- SnapVolName: " + a + ", RMountName: /no/such/folder, RVSize: 17.\n",
                   "[3] Reloc options are not correct.\n"}));
}

TEST_F(Deduce, with_both_that_cannot_be_placed_fails) {
  const std::string a = volume("a");
  request(a, 17, folderOf(a));
  hooks.initializeUserSelectedOptions = 17;
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_EQ(ownMessages(),
            (Lines{"[6] User Options -- SnapVolName: " + a + ", RMountName: " + folderOf(a) + ", RVSize: 17.\n",
                   "[3] Unable to initialize user selected options.\n"}));
  EXPECT_EQ(mappingCommands(), Lines());
}

TEST_F(Deduce, logs_sizes_as_signed_numbers_of_32_bits) {
  const unsigned int blocks = 0x80000000;
  const std::string a = machine.device("a");
  const std::string folder = machine.mount(a, {gib(20480), gib(20480)});
  const std::string file = folder + "/.verrelocarea/a";
  const std::string placed = "SVName: " + a + ", RFName: " + file + ", RVName: " + a + ", RVSize: -2147483648.\n";
  driver.fail(IOC_CREATE_RELOC_FILE_MAPPING, EBUSY);  // so that no file is made
  const auto logged = [&](unsigned int size, const std::string& mountPoint) {
    volumes.clear();
    request(a, size, mountPoint);
    EXPECT_EQ(deduce(blocks), 10);
    EXPECT_EQ(volumes.front().getRelocFileSize(), blocks);
    Lines lines = ownMessages();
    EXPECT_EQ(lines.back(), "[3] Unable to create relocation file mapping.\n");
    lines.pop_back();
    return lines;
  };
  EXPECT_EQ(logged(0, ""), (Lines{"[6] " + placed}));
  EXPECT_EQ(logged(0, folder), (Lines{"[7] SnapVolue: " + a + ", RMountName: " + folder + "\n", "[3] " + placed}));
  EXPECT_EQ(logged(blocks, ""), (Lines{"[7] SnapVolume: " + a + " , RFSize: -2147483648.\n", "[3] " + placed}));
  EXPECT_EQ(logged(blocks, folder),
            (Lines{"[6] User Options -- SnapVolName: " + a + ", RMountName: " + folder + ", RVSize: -2147483648.\n",
                   "[7] Final options -- SnapVolName: " + a + ", RMountName: " + folder + ", RVolName: " + a +
                       ", RVSize: -2147483648.\n"}));
}

// --- Memory, mapping, file.

TEST_F(Deduce, without_memory_fails_after_the_placement_and_before_any_mapping_or_file) {
  const std::string a = volume("a");
  request(a);
  EXPECT_EQ(deduce(0), 10);
  EXPECT_EQ(volumes.front().getRelocFileName(), "") << "the only place is the volume itself, for no block";
  const std::string other = volume("other");
  EXPECT_EQ(deduce(0), 10);
  EXPECT_EQ(volumes.front().getRelocFileName(), folderOf(other) + "/.verrelocarea/a");
  EXPECT_EQ(ownMessages().back(), "[3] Not enough Memory to hold  relocationobjects\n");
  EXPECT_EQ(mappingCommands(), Lines());
  EXPECT_FALSE(fs::exists(folderOf(a) + "/.verrelocarea"));
  EXPECT_FALSE(fs::exists(folderOf(other) + "/.verrelocarea"));
}

TEST_F(Deduce, shares_the_drivers_memory_out_in_list_order) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 600);
  request(b);
  EXPECT_EQ(deduce(1000), 0);
  EXPECT_EQ(volumes.back().getRelocFileSize(), 400u);
}

TEST_F(Deduce, fails_when_the_memory_is_used_up_and_undoes_the_volumes_before) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 1000);
  request(b, 0, folderOf(b));
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_TRUE(log.has(3, "Not enough Memory to hold  relocationobjects\n"));
  EXPECT_FALSE(fs::exists(fileOf(a)));
  EXPECT_EQ(volumes.back().getRelocFileName(), fileOf(b)) << "the record keeps the name";
}

TEST_F(Deduce, tells_the_driver_before_the_file_exists) {
  const std::string a = volume("a");
  request(a);
  bool asked = false;
  driver.on(IOC_CREATE_RELOC_FILE_MAPPING, [&](std::byte*, std::size_t) {
    asked = true;
    EXPECT_FALSE(fs::exists(fileOf(a)));
    return 0;
  });
  EXPECT_EQ(deduce(1000), 0);
  EXPECT_TRUE(asked);
}

TEST_F(Deduce, takes_the_size_that_creation_left) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 600);
  request(b);
  hooks.posixFallocate = [](int, off_t, off_t) { return std::optional<int>(EOPNOTSUPP); };
  int writes = 0;
  hooks.write = [&](int, const void*, size_t) -> std::optional<ssize_t> {
    if (++writes != 101) return std::nullopt;
    return 0;
  };
  EXPECT_EQ(deduce(1000), 0);
  EXPECT_EQ(volumes.front().getRelocFileSize(), 100u);
  EXPECT_EQ(volumes.back().getRelocFileSize(), 900u) << "what was cut is there for the next";
}

// --- Undoing.

TEST_F(Undo, a_third_volume_without_a_place_undoes_the_first_two) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 10);
  request(b, 10);
  request(machine.device("c"), 10, "/no/such/folder");
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_EQ(mappingCommands(), (Lines{created(a, fileOf(a)), created(b, fileOf(b)), deleted(a), deleted(b)}));
  EXPECT_FALSE(fs::exists(fileOf(a)));
  EXPECT_FALSE(fs::exists(fileOf(b)));
  EXPECT_TRUE(fs::exists(folderOf(a) + "/.verrelocarea")) << "directories stay";
  EXPECT_EQ(volumes.front().getRelocFileName(), fileOf(a)) << "records keep their names";
  const Lines said = ownMessages();
  ASSERT_GE(said.size(), 3u);
  EXPECT_EQ(Lines(said.end() - 3, said.end()),
            (Lines{"[3] Reloc options are not correct.\n", "[6] Deleted precreated RelocFile\n",
                   "[6] Deleted precreated RelocFile\n"}));
}

TEST_F(Undo, removes_each_file_before_its_mapping) {
  const std::string a = volume("a");
  request(a, 10);
  request(machine.device("b"), 10, "/no/such/folder");
  bool asked = false;
  driver.on(IOC_DELETE_RELOC_FILE_MAPPING, [&](std::byte*, std::size_t) {
    asked = true;
    EXPECT_FALSE(fs::exists(fileOf(a)));
    return 0;
  });
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_TRUE(asked);
}

TEST_F(Undo, a_refused_mapping_makes_no_file_and_is_not_withdrawn) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 10);
  request(b, 10);
  driver.on(IOC_CREATE_RELOC_FILE_MAPPING, [&](std::byte* buffer, std::size_t) {
    return std::string(reinterpret_cast<char*>(buffer) + 28) == b ? EBUSY : 0;
  });
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_TRUE(log.has(3, "Unable to create relocation file mapping.\n"));
  EXPECT_FALSE(fs::exists(folderOf(b) + "/.verrelocarea"));
  EXPECT_EQ(mappingCommands(), (Lines{created(a, fileOf(a)), created(b, fileOf(b)), deleted(a)}));
}

TEST_F(Undo, a_file_that_cannot_be_made_keeps_its_own_mapping) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 10);
  request(b, 10);
  fs::create_directories(fileOf(b));
  EXPECT_EQ(deduce(1000), 10);
  EXPECT_TRUE(log.has(3, "Reloc File couldnt be created.\n"));
  EXPECT_EQ(mappingCommands(), (Lines{created(a, fileOf(a)), created(b, fileOf(b)), deleted(a)}));
}

TEST_F(Undo, a_mapping_that_cannot_be_withdrawn_is_logged_and_the_next_goes_on) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 10);
  request(b, 10);
  request(machine.device("c"), 10, "/no/such/folder");
  driver.fail(IOC_DELETE_RELOC_FILE_MAPPING, EIO);
  EXPECT_EQ(deduce(1000), 10);
  const Lines said = ownMessages();
  ASSERT_GE(said.size(), 4u);
  EXPECT_EQ(Lines(said.end() - 4, said.end()),
            (Lines{"[3] Unable to delete the reloc file mapping.\n", "[6] Deleted precreated RelocFile\n",
                   "[3] Unable to delete the reloc file mapping.\n", "[6] Deleted precreated RelocFile\n"}));
}

TEST_F(Undo, an_exception_for_a_short_name_leaves_with_everything_before_it_undone) {
  const std::string a = volume("a");
  request(a, 10);
  request("/a", 0);
  EXPECT_THROW(deduce(1000), std::out_of_range);
  EXPECT_EQ(mappingCommands(), (Lines{created(a, fileOf(a)), deleted(a)}));
  EXPECT_FALSE(fs::exists(fileOf(a)));
  EXPECT_EQ(referencesLeft(), 0u);
}

// --- Cleaning.

TEST_F(Clean, removes_files_mappings_and_directories) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 10);
  request(b, 10, folderOf(b));
  ASSERT_EQ(deduce(1000), 0);
  log.clear();
  driver.clearCalls();
  singleton->cleanRelocFiles(&volumes);
  EXPECT_EQ(mappingCommands(), (Lines{deleted(a), deleted(b)}));
  EXPECT_FALSE(fs::exists(folderOf(a) + "/.verrelocarea"));
  EXPECT_FALSE(fs::exists(folderOf(b) + "/.verrelocarea"));
  EXPECT_EQ(messages(), (Lines{"[7] Deleted directory: " + folderOf(a) + "/.verrelocarea.\n",
                               "[7] Deleted precreated RelocFile: " + fileOf(a) + ".\n",
                               "[7] Deleted directory: " + folderOf(b) + "/.verrelocarea.\n",
                               "[7] Deleted precreated RelocFile: " + fileOf(b) + ".\n"}));
}

TEST_F(Clean, removes_each_file_before_its_mapping_and_its_mapping_before_its_directory) {
  const std::string a = volume("a");
  request(a, 10);
  ASSERT_EQ(deduce(1000), 0);
  bool asked = false;
  driver.on(IOC_DELETE_RELOC_FILE_MAPPING, [&](std::byte*, std::size_t) {
    asked = true;
    EXPECT_FALSE(fs::exists(fileOf(a)));
    EXPECT_TRUE(fs::exists(folderOf(a) + "/.verrelocarea"));
    return 0;
  });
  singleton->cleanRelocFiles(&volumes);
  EXPECT_TRUE(asked);
  EXPECT_FALSE(fs::exists(folderOf(a) + "/.verrelocarea"));
}

TEST_F(Clean, keeps_a_directory_that_holds_another_file_and_says_it_was_deleted) {
  const std::string a = volume("a");
  request(a, 10);
  ASSERT_EQ(deduce(1000), 0);
  writeFile(folderOf(a) + "/.verrelocarea/another", "");
  log.clear();
  singleton->cleanRelocFiles(&volumes);
  EXPECT_FALSE(fs::exists(fileOf(a)));
  EXPECT_TRUE(fs::exists(folderOf(a) + "/.verrelocarea/another"));
  EXPECT_TRUE(log.has(7, "Deleted directory: " + folderOf(a) + "/.verrelocarea.\n"));
}

TEST_F(Clean, of_a_record_without_a_file_still_withdraws_its_mapping) {
  const std::string a = volume("a");
  request(a);
  log.clear();
  singleton->cleanRelocFiles(&volumes);
  EXPECT_EQ(mappingCommands(), (Lines{deleted(a)}));
  EXPECT_EQ(messages(), (Lines{"[7] Deleted directory: .\n", "[7] Deleted precreated RelocFile: .\n"}));
}

TEST_F(Clean, goes_on_after_a_failure) {
  const std::string a = volume("a");
  const std::string b = volume("b");
  request(a, 10);
  request(b, 10);
  ASSERT_EQ(deduce(1000), 0);
  fs::remove(fileOf(a));
  driver.fail(IOC_DELETE_RELOC_FILE_MAPPING, EIO);
  log.clear();
  singleton->cleanRelocFiles(&volumes);
  EXPECT_EQ(log.count(3, "Unable to delete the reloc file mapping.\n"), 2u);
  EXPECT_FALSE(fs::exists(fileOf(b)));
  EXPECT_FALSE(fs::exists(folderOf(b) + "/.verrelocarea"));
}

TEST_F(Clean, without_a_list_or_a_record_does_nothing) {
  log.clear();
  driver.clearCalls();
  singleton->cleanRelocFiles(nullptr);
  singleton->cleanRelocFiles(&volumes);
  EXPECT_EQ(messages(), Lines());
  EXPECT_EQ(driver.calls().size(), 0u);
}

}  // namespace
}  // namespace test
