// SPDX-License-Identifier: Apache-2.0
//
// Backup agents as tests drive them: a process with the shipped library in it, and the engines that it makes.
#pragma once

#include <mirelsnap/SnapshotEngine.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "LoopVolume.h"
#include "Session.h"

namespace test {

// The agent's process ended in the middle of a call.
class AgentGone : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Engine;

class Agent {
 public:
  explicit Agent(Session& session, StartOptions options = {});

  Engine engine();
  // One whose set is open and holds `volumes`; throws where it cannot be.
  Engine openedSet(const std::vector<const Volume*>& volumes);
  pid_t id() const { return mProcess.id(); }
  Process& process() { return mProcess; }
  // SIGKILL: what it holds stays with the driver.
  void kill() { mProcess.kill(); }
  // The engines' messages since the last time.
  std::vector<std::string> messages();
  // From here the library's outside steps are counted; before step `last` the agent kills itself (0: never).
  void countSteps(unsigned int last = 0);
  std::vector<std::string> takenSteps();
  // Peak of its resident memory, in KiB.
  long peakMemory();

  // Throws AgentGone.
  Json call(const std::string& operation, Json arguments = Json::object());
  // A call that lasts: its answer is taken later.
  void begin(const std::string& operation, Json arguments);
  Json finish();

 private:
  Agent(Session& session, StartOptions options, std::pair<Channel, Channel> ends);

  Channel mChannel;
  Process mProcess;
};

struct JobStatus {
  int result;
  int status;
  int snapResult;
};

// One engine in an agent. Each method is the operation of that name and gives its result code.
class Engine {
 public:
  Engine(Agent& agent, std::size_t index) : mAgent(&agent), mIndex(index) {}

  int start();
  int waitForNewSet(unsigned int ms) { return code("wait_for_new_set", {{"ms", ms}}); }
  // The same on a thread of the agent's; then its result, which is waited for.
  void beginWaitForNewSet(unsigned int ms) { call("begin_wait_for_new_set", {{"ms", ms}}); }
  int endWaitForNewSet() { return code("end_wait_for_new_set"); }
  // Keeps the snapshot's identifier, see snapshot().
  int add(const std::string& volume, const std::string& mountPoint);
  int add(const Volume& volume) { return add(volume.device(), volume.folder()); }
  int addAlternate(const std::string& mountPoint) { return code("add_alternate", {{"mount_point", mountPoint}}); }
  // Both relocation options for the volume added as number `volume`.
  int setRelocation(std::size_t volume, const std::string& mountPoint, unsigned int blocks);
  int setOption(const std::string& snapshot, const std::string& key, const std::string& value);
  int startJob() { return code("start_job"); }
  int waitForJob(unsigned int ms) { return code("wait_for_job", {{"ms", ms}}); }
  JobStatus status();
  // Starts the job, waits for its end: the driver interface's code, 0 for success.
  int snap();
  int expose(const std::string& base) { return code("expose", {{"base", base}}); }
  int unexpose() { return code("unexpose"); }
  int deleteSet() { return code("delete_set", {{"set", mSet}}); }
  int reconcile(const std::string& base) { return code("reconcile", {{"base", base}}); }
  int reconcile() { return code("reconcile"); }
  Json properties(std::size_t volume) { return call("properties", {{"snapshot", snapshot(volume)}}); }
  // What IsSnapshotExposed writes.
  int isExposed(std::size_t volume) { return call("is_exposed", {{"snapshot", snapshot(volume)}})["exposed"]; }
  std::string version() { return call("version")["version"]; }
  bool supportsSnapshots() { return call("supports_snapshots")["supported"] == 1; }
  // References left.
  unsigned int release() { return call("release")["count"]; }

  const std::string& set() const { return mSet; }
  // Identifier of the volume that was added as number `volume`.
  const std::string& snapshot(std::size_t volume) const { return mSnapshots.at(volume); }

 private:
  Json call(const std::string& operation, Json arguments = Json::object());
  int code(const std::string& operation, Json arguments = Json::object()) {
    return call(operation, std::move(arguments))["result"];
  }

  Agent* mAgent;
  std::size_t mIndex;
  std::string mSet;
  std::vector<std::string> mSnapshots;
};

}  // namespace test
