// SPDX-License-Identifier: Apache-2.0
//
// A process that uses the driver's own interface of the shipped library, as a tool beside the agents would.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Session.h"

namespace test {

class DriverClient {
 public:
  explicit DriverClient(Session& session);

  // One volume of a snap request; 0 and "" let the library choose.
  struct Request {
    std::string device;
    std::string folder;  // where it is mounted
    unsigned int relocationBlocks = 0;
    std::string relocationMount = "";
    bool tracked = false;  // changes of it, from the snap on
  };
  struct Snapped {
    int result;
    std::vector<std::string> snapshotDevices;
    std::vector<std::string> relocationFiles;
    std::vector<unsigned int> relocationBlocks;
  };
  Snapped snap(const std::vector<Request>& requests);
  unsigned int unsnap(const std::vector<std::string>& devices);
  unsigned int freeze(const std::vector<std::string>& devices);
  unsigned int thaw(const std::vector<std::string>& devices);
  unsigned int reconcile();

  bool isTracked(const std::string& device);
  struct TrackingVars {
    unsigned int result;
    std::string guid;
    unsigned int sequenceNumber;
  };
  TrackingVars trackingVars(const std::string& device);
  struct Run {
    std::uint64_t start, blocks;
    bool operator==(const Run&) const = default;
  };
  struct Changes {
    unsigned int result;
    unsigned int type;  // as the driver answered it
    std::vector<Run> runs;
  };
  // With room for so many runs; from a block on where the type asks for that.
  Changes changes(const std::string& device, unsigned int room, unsigned int type = 0, std::uint64_t from = 0);
  unsigned int pushUsed(const std::string& device, const std::vector<Run>& runs);
  unsigned int stopTracking(const std::vector<std::string>& devices);
  // Into a file; into the driver's log without one.
  unsigned int dumpState(const std::string& file);
  unsigned int setLogLevel(unsigned int level);

  // {"volume", "process", "file", "blocks"} each.
  Json snapped();
  Json mappings();
  std::string version();
  // A command that changes nothing, see Session::trace.
  void mark() { call("mark"); }
  pid_t id() const { return mProcess.id(); }
  void kill() { mProcess.kill(); }

 private:
  Json call(const std::string& operation, Json arguments = Json::object());
  DriverClient(Session& session, std::pair<Channel, Channel> ends);

  Channel mChannel;
  Process mProcess;
};

}  // namespace test
