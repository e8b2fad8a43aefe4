// SPDX-License-Identifier: Apache-2.0
//
// An agent that has exited and was not reaped holds a snapshot: every verb calls it gone, and none sends anybody to
// remove a file while the snapshot is held.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <optional>

#include "DriverClient.h"
#include "Verbs.h"
#include "Waiting.h"

namespace {

using test::document;
using test::DriverClient;
using test::Ended;
using test::Json;
using test::Mounted;
using test::Process;
using test::Session;
using test::TempDir;
using test::verb;
using test::Volume;

struct Place {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  bool bound;  // the volume is named by a bind mount
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

class Zombie : public testing::TestWithParam<Place> {
 protected:
  Zombie() {
    EXPECT_TRUE(parent.writesLine()) << parent.errors();
    zombie = DriverClient(session).snapped()[0]["process"];
    kill(zombie, SIGKILL);
    kill(std::stoi(parent.output()), SIGKILL);
    const std::string status = "/proc/" + std::to_string(zombie) + "/stat";
    EXPECT_TRUE(test::comesTrue([&] { return test::readFile(status).find(") Z ") != std::string::npos; }));
    EXPECT_EQ(kill(zombie, 0), 0) << "its number is taken";
    gone = "process " + std::to_string(zombie) + ", which is gone";
  }
  ~Zombie() override {
    EXPECT_EQ(verb(session, {"reconcile"}).code, 0);
    EXPECT_EQ(verb(session, {"reconcile"}).output, "Nothing is left of dead processes.\n");
  }
  static void expectNoRemovalByHand(const Ended& ended) {
    for (const std::string& text : {ended.output, ended.errors}) {
      EXPECT_EQ(text.find("rm "), std::string::npos) << text;
      EXPECT_EQ(text.find("remove it"), std::string::npos) << text;
    }
  }

  const TempDir elsewhere;
  const Volume volume{GetParam().type, GetParam().bytes};
  const std::optional<Mounted> bind{
      GetParam().bound ? std::make_optional<Mounted>(volume.folder(), elsewhere.path(), "", MS_BIND) : std::nullopt};
  const std::string path = bind ? bind->folder() : volume.folder();
  const std::string file = volume.folder() + "/.verrelocarea/" + volume.device().substr(5);
  Session session;
  // Becomes a program that never asks how its child ended.
  Process parent = session.start({"/bin/sh", "-c",
                                  "\"$0\" run --volume \"$1\" -- /bin/sh -c 'echo $$; exec sleep 600' & exec sleep 600",
                                  MIRELSNAP_PROGRAM, path});
  pid_t zombie = 0;
  std::string gone;
};

INSTANTIATE_TEST_SUITE_P(On, Zombie,
                         testing::Values(Place{"ext4", "ext4", 32 << 20, false}, Place{"xfs", "xfs", 300 << 20, false},
                                         Place{"a_bind_mount_of_ext4", "ext4", 32 << 20, true},
                                         Place{"a_bind_mount_of_xfs", "xfs", 300 << 20, true}),
                         [](const auto& place) { return std::string(place.param.name); });

TEST_P(Zombie, is_gone_for_status) {
  const Ended ended = verb(session, {"status"});
  EXPECT_EQ(ended.code, 0);
  std::size_t owners = 0;
  for (std::size_t at = ended.output.find(gone); at != std::string::npos; at = ended.output.find(gone, at + 1))
    ++owners;
  EXPECT_EQ(owners, 2u) << "of the snapshot and of the mapping: " << ended.output;
  const Json told = document(session, {"status"});
  EXPECT_EQ(told["snapped_volumes"][0]["owner"]["alive"], false);
  EXPECT_EQ(told["mappings"][0]["owner"]["alive"], false);
  expectNoRemovalByHand(ended);
}

TEST_P(Zombie, is_gone_for_doctor) {
  const Ended ended = verb(session, {"doctor", path});
  EXPECT_EQ(ended.code, 1);
  EXPECT_TRUE(ended.output.starts_with(volume.device() + ": is snapped by " + gone +
                                       "; mirelsnap reconcile removes it\n" + volume.device() + ": is mapped to " +
                                       file + " by " + gone + "; mirelsnap reconcile removes it\n" + file +
                                       ": is a relocation file of no living process; mirelsnap reconcile removes it\n"))
      << ended.output;
  expectNoRemovalByHand(ended);
}

TEST_P(Zombie, is_gone_for_plan) {
  const Ended ended = verb(session, {"plan", path});
  EXPECT_EQ(ended.code, 114);
  EXPECT_EQ(ended.errors,
            "mirelsnap: " + volume.device() + ": is still snapped by " + gone + "; mirelsnap reconcile ends that\n");
  expectNoRemovalByHand(ended);
}

TEST_P(Zombie, is_gone_for_the_next_run) {
  const Ended ended = verb(session, {"run", "--volume", path, "--", "/bin/true"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.errors, "");
}

}  // namespace
