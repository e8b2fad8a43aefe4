// SPDX-License-Identifier: Apache-2.0
#include "Agent.h"

namespace test {

namespace {

StartOptions withChannel(StartOptions options, const Channel& channel) {
  options.channel = channel.socket();
  return options;
}

}  // namespace

Agent::Agent(Session& session, StartOptions options) : Agent(session, std::move(options), Channel::pair()) {}

Agent::Agent(Session& session, StartOptions options, std::pair<Channel, Channel> ends)
    : mChannel(std::move(ends.first)),
      mProcess(session.start({AGENT_PROGRAM, MIRELSNAP_LIBRARY}, withChannel(std::move(options), ends.second))) {}

Engine Agent::engine() { return Engine(*this, call("create")["engine"]); }

Engine Agent::openedSet(const std::vector<const Volume*>& volumes) {
  Engine opened = engine();
  if (opened.start() != S_OK) throw std::runtime_error("no set can be started");
  for (const Volume* volume : volumes) {
    if (opened.add(*volume) != S_OK) throw std::runtime_error("cannot add " + volume->device());
  }
  return opened;
}

std::vector<std::string> Agent::messages() { return call("messages"); }

void Agent::countSteps(unsigned int last) { call("count_steps", {{"last", last}}); }

std::vector<std::string> Agent::takenSteps() { return call("taken_steps"); }

long Agent::peakMemory() { return call("peak_memory")["kib"]; }

Json Agent::call(const std::string& operation, Json arguments) {
  begin(operation, std::move(arguments));
  return finish();
}

void Agent::begin(const std::string& operation, Json arguments) {
  arguments["operation"] = operation;
  if (!mChannel.send(arguments)) throw AgentGone("the agent ended before " + operation + ": " + mProcess.errors());
}

Json Agent::finish() {
  std::optional<Json> answer = mChannel.receive();
  if (!answer) throw AgentGone("the agent ended: " + mProcess.errors());
  return *std::move(answer);
}

Json Engine::call(const std::string& operation, Json arguments) {
  arguments["engine"] = mIndex;
  return mAgent->call(operation, std::move(arguments));
}

int Engine::start() {
  const Json answer = call("start_set");
  mSet = answer["set"];
  return answer["result"];
}

int Engine::add(const std::string& volume, const std::string& mountPoint) {
  const Json answer = call("add", {{"volume", volume}, {"mount_point", mountPoint}});
  mSnapshots.push_back(answer["snapshot"]);
  return answer["result"];
}

int Engine::setOption(const std::string& snapshot, const std::string& key, const std::string& value) {
  return code("set_option", {{"snapshot", snapshot}, {"key", key}, {"value", value}});
}

int Engine::setRelocation(std::size_t volume, const std::string& mountPoint, unsigned int blocks) {
  const int result = setOption(snapshot(volume), "RelocationFileMountPoint", mountPoint);
  return result < 0 ? result : setOption(snapshot(volume), "RelocationFileSize", std::to_string(blocks));
}

JobStatus Engine::status() {
  const Json answer = call("query_job");
  return {answer["result"], answer["status"], answer["snap_result"]};
}

int Engine::snap() {
  if (const int result = startJob(); result < 0) return result;
  while (status().status == USC_S_ASYNC_PENDING) waitForJob(1000);
  return status().snapResult;
}

}  // namespace test
