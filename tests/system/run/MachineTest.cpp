// SPDX-License-Identifier: Apache-2.0
//
// Whole machines: every volume that can be snapped, the root file system among them.
#include <gtest/gtest.h>

#include <filesystem>

#include "Agent.h"
#include "Machine.h"
#include "MountList.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::Ended;
using test::Engine;
using test::Json;
using test::LoopDevice;
using test::Machine;
using test::Mounted;
using test::Session;

using Texts = std::vector<std::string>;

class RunOnMachine : public testing::Test {
 protected:
  RunOnMachine() : home(300 << 20), data(16 << 20) {
    fs::create_directories(machine / "/sbin");
    test::writeFile(machine / kModprobe, "");
    home.mkfs("xfs");
    data.mkfs("ext4");
    homeMount.emplace(home.path(), machine / "/home", "xfs");
    fs::create_directories(machine / "/home/user/data");
    dataMount.emplace(data.path(), machine / "/home/user/data", "ext4");
    test::writeFile(machine / "/etc/file", "root");
    test::writeFile(machine / "/home/file", "home");
    test::writeFile(machine / "/home/user/data/file", "data");
  }

  static constexpr char kModprobe[] = "/sbin/modprobe";
  const Machine machine;
  const LoopDevice home;
  const LoopDevice data;
  std::optional<Mounted> homeMount;
  std::optional<Mounted> dataMount;
};

TEST_F(RunOnMachine, without_a_volume_named_snaps_every_volume_and_shows_the_whole_tree) {
  Session session;
  const Ended ended =
      session.run({MIRELSNAP_PROGRAM, "run", "--json", "--", "/bin/sh", "-c",
                   "echo now >/etc/file; echo now >/home/file; echo now >/home/user/data/file; "
                   "cat $MIRELSNAP_BASE/etc/file $MIRELSNAP_BASE/home/file $MIRELSNAP_BASE/home/user/data/file; echo; "
                   "echo $MIRELSNAP_VOLUME_1 $MIRELSNAP_VOLUME_2 $MIRELSNAP_VOLUME_3"},
                  machine.inside());
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.errors, "");
  std::istringstream lines(ended.output);
  std::string contents, paths, document;
  for (std::string* line : {&contents, &paths, &document}) std::getline(lines, *line);
  EXPECT_EQ(contents, "roothomedata");
  const Json volumes = Json::parse(document)["volumes"];
  const std::string base = Json::parse(document)["base"];
  EXPECT_EQ(paths, base + " " + base + "/home " + base + "/home/user/data");
  Texts devices;
  for (const Json& volume : volumes) devices.push_back(volume["device"]);
  EXPECT_EQ(devices, (Texts{machine.device(), home.path(), data.path()}));
  EXPECT_EQ(volumes[0]["mount_points"], Json{"/"});
  EXPECT_EQ(volumes[0]["relocation_file"], "//.verrelocarea/" + machine.device().substr(5));
  EXPECT_FALSE(fs::exists(machine / "/run/mirelsnap"));
}

TEST_F(RunOnMachine, with_the_root_left_out_still_has_a_folder_for_each) {
  Session session;
  const Ended ended = session.run({MIRELSNAP_PROGRAM, "run", "--volume", "/home", "--volume", "/home/user/data", "--",
                                   "/bin/sh", "-c", "cat $MIRELSNAP_BASE/home/file $MIRELSNAP_VOLUME_2/file"},
                                  machine.inside());
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "homedata");
}

TEST_F(RunOnMachine, with_a_gap_between_root_and_data_is_refused_with_a_remedy_that_works) {
  Session session;
  Texts arguments = {MIRELSNAP_PROGRAM, "run", "--volume", "/", "--volume", "/home/user/data"};
  Texts command = {"--", "/bin/sh", "-c", "cat $MIRELSNAP_BASE/home/user/data/file"};
  Texts refused = arguments;
  refused.insert(refused.end(), command.begin(), command.end());
  Ended ended = session.run(refused, machine.inside());
  EXPECT_EQ(ended.code, 117);
  EXPECT_EQ(ended.errors,
            "mirelsnap: /home/user/data: is mounted in /home, which is not in the set, so there is no folder to mount "
            "it on; add --volume /home or leave out what lies above it\n");
  arguments.insert(arguments.end(), {"--volume", "/home"});
  arguments.insert(arguments.end(), command.begin(), command.end());
  ended = session.run(arguments, machine.inside());
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "data");
}

// The root's snapshot brings every folder: nothing is left below the base, which goes with the exposure.
TEST_F(RunOnMachine, an_engine_exposes_root_home_and_data_in_that_order_and_removes_the_base) {
  Session session;
  Agent agent(session, machine.inside());
  Engine engine = agent.engine();
  ASSERT_EQ(engine.start(), S_OK);
  ASSERT_EQ(engine.add(data.path(), "/home/user/data"), S_OK);
  ASSERT_EQ(engine.add(home.path(), "/home"), S_OK);
  ASSERT_EQ(engine.add(machine.device(), "/"), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  for (std::size_t volume = 0; volume < 3; ++volume) EXPECT_EQ(engine.isExposed(volume), 1) << "1 is: not exposed";
  ASSERT_EQ(engine.expose("/tmp/base/"), S_OK);
  for (std::size_t volume = 0; volume < 3; ++volume) EXPECT_EQ(engine.isExposed(volume), 0);
  const std::string base = machine / "/tmp/base";
  EXPECT_EQ(test::mountsUnder(base), (Texts{base, base + "/home", base + "/home/user/data"}));
  EXPECT_EQ(test::readFile(base + "/home/user/data/file"), "data");
  EXPECT_EQ(engine.unexpose(), S_OK);
  EXPECT_FALSE(fs::exists(base));
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

TEST_F(RunOnMachine, that_has_no_modprobe_is_112) {
  fs::remove(machine / kModprobe);
  Session session;
  test::expectFailure(session.run({MIRELSNAP_PROGRAM, "run", "--", "/bin/true"}, machine.inside()), 112,
                      "mirelsnap: /dev/mirelsnapctl: there is no modprobe, without which the driver is not looked for; "
                      "install kmod");
}

}  // namespace
