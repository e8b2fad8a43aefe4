// SPDX-License-Identifier: Apache-2.0
#include "Recipe.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "ProcessState.h"
#include "Waiting.h"

namespace fs = std::filesystem;

namespace test {
namespace {

// Where mirelsnap is found, and all else.
std::string searchPath() { return fs::path(MIRELSNAP_PROGRAM).parent_path().string() + ":" + std::getenv("PATH"); }

std::vector<std::string> command(const std::string& name, const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {std::string(RECIPES_FOLDER) + "/" + name};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

}  // namespace

Recipe::Recipe(Session& session, const std::string& name, const std::vector<std::string>& arguments,
               const std::string& client, Environment environment) {
  // Stands before the client where programs are looked for.
  fs::create_directory(mDir / "bin");
  const std::string gate = mDir / ("bin/" + client);
  writeFile(gate, "#!/bin/sh\necho $PPID >" + mDir / "caller" + "\n: >" + mDir / "held" + "\nwhile [ ! -e " +
                      mDir / "released" + " ]; do sleep 0.01; done\nPATH=\"" + searchPath() + "\" exec " + client +
                      " \"$@\"\n");
  chmod(gate.c_str(), 0755);
  environment["PATH"] = mDir / "bin" + ":" + searchPath();
  mProcess = session.start(command(name, arguments), {.environment = std::move(environment)});
}

void Recipe::waitForClient() {
  const auto held = [this] { return fs::exists(mDir / "held"); };
  if (!comesTrue([&] { return held() || !mProcess->running(); }) || !held()) {
    throw std::runtime_error("the recipe does not come to its client: " + mProcess->errors());
  }
}

void Recipe::release() { writeFile(mDir / "released", ""); }

void Recipe::terminate() {
  mProcess->signal(SIGTERM);
  // mirelsnap passes it on to the shell that called the client.
  const pid_t caller = std::stoi(readFile(mDir / "caller"));
  if (!comesTrue([&] { return hasTaken(mProcess->id(), SIGTERM) && hasTaken(caller, SIGTERM); })) {
    throw std::runtime_error("the recipe does not take its signal");
  }
}

Ended Recipe::finish() {
  const int code = mProcess->wait();
  return {code, mProcess->output(), mProcess->errors()};
}

Ended Recipe::run(Session& session, const std::string& name, const std::vector<std::string>& arguments,
                  Environment environment) {
  environment["PATH"] = searchPath();
  return session.run(command(name, arguments), {.environment = std::move(environment)});
}

}  // namespace test
