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
                       {"mount", request.relocationMount}});
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
Json DriverClient::snapped() { return call("snapped"); }
Json DriverClient::mappings() { return call("mappings"); }
std::string DriverClient::version() { return call("version")["version"]; }

}  // namespace test
