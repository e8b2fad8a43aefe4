// SPDX-License-Identifier: Apache-2.0
#include "DriverClient.h"

#include <stdexcept>

namespace test {

DriverClient::DriverClient(Session& session) : DriverClient(session, Channel::pair()) {}

DriverClient::DriverClient(Session& session, std::pair<Channel, Channel> ends)
    : mChannel(std::move(ends.first)),
      mProcess(session.start({DRIVER_CLIENT_PROGRAM}, {.channel = ends.second.socket()})) {}

Json DriverClient::call(const std::string& operation, Json arguments) {
  arguments["operation"] = operation;
  const std::optional<Json> answer = mChannel.send(arguments) ? mChannel.receive() : std::nullopt;
  if (!answer) throw std::runtime_error("the driver's client is gone: " + mProcess.errors());
  return *answer;
}

DriverClient::Snapped DriverClient::snap(const std::vector<Request>& requests) {
  Json volumes = Json::array();
  for (const Request& request : requests) {
    volumes.push_back({{"device", request.device},
                       {"folder", request.folder},
                       {"blocks", request.relocationBlocks},
                       {"mount", request.relocationMount},
                       {"tracked", request.tracked}});
  }
  const Json answer = call("snap", {{"volumes", volumes}});
  return {answer["result"], answer["devices"], answer["files"], answer["blocks"]};
}

unsigned int DriverClient::unsnap(const std::vector<std::string>& devices) {
  return call("unsnap", {{"devices", devices}})["result"];
}
unsigned int DriverClient::freeze(const std::vector<std::string>& devices) {
  return call("freeze", {{"devices", devices}})["result"];
}
unsigned int DriverClient::thaw(const std::vector<std::string>& devices) {
  return call("thaw", {{"devices", devices}})["result"];
}
unsigned int DriverClient::reconcile() { return call("reconcile")["result"]; }

bool DriverClient::isTracked(const std::string& device) { return call("is_tracked", {{"device", device}})["tracked"]; }

DriverClient::TrackingVars DriverClient::trackingVars(const std::string& device) {
  const Json answer = call("tracking_vars", {{"device", device}});
  return {answer["result"], answer["guid"], answer["number"]};
}

DriverClient::Changes DriverClient::changes(const std::string& device, unsigned int room, unsigned int type,
                                            std::uint64_t from) {
  const Json answer = call("changes", {{"device", device}, {"room", room}, {"type", type}, {"from", from}});
  Changes changes{answer["result"], answer["type"], {}};
  for (const Json& run : answer["runs"]) changes.runs.push_back({run[0], run[1]});
  return changes;
}

unsigned int DriverClient::pushUsed(const std::string& device, const std::vector<Run>& runs) {
  Json all = Json::array();
  for (const Run& run : runs) all.push_back({run.start, run.blocks});
  return call("push_used", {{"device", device}, {"runs", all}})["result"];
}

unsigned int DriverClient::stopTracking(const std::vector<std::string>& devices) {
  return call("stop_tracking", {{"devices", devices}})["result"];
}
unsigned int DriverClient::dumpState(const std::string& file) { return call("dump_state", {{"file", file}})["result"]; }
unsigned int DriverClient::setLogLevel(unsigned int level) {
  return call("set_log_level", {{"level", level}})["result"];
}

Json DriverClient::snapped() { return call("snapped"); }
Json DriverClient::mappings() { return call("mappings"); }
std::string DriverClient::version() { return call("version")["version"]; }

}  // namespace test
