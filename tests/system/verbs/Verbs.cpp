// SPDX-License-Identifier: Apache-2.0
#include "Verbs.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "Agent.h"

namespace test {

void fillVolume(const std::string& folder, unsigned int share) {
  const int file = open((folder + "/filling").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string piece(65536, 'x');
  struct statvfs sizes {};
  while (statvfs(folder.c_str(), &sizes) == 0 && (sizes.f_blocks - sizes.f_bfree) * 100 < sizes.f_blocks * share &&
         write(file, piece.data(), piece.size()) > 0) {
    fsync(file);
  }
  close(file);
}

pid_t killedRun(Session& session, const Volume& volume, const std::string& base) {
  Texts arguments = {MIRELSNAP_PROGRAM, "run", "--volume", volume.device()};
  if (!base.empty()) arguments.insert(arguments.end(), {"--base", base});
  arguments.insert(arguments.end(), {"--", "/bin/sh", "-c", "echo $$; exec sleep infinity"});
  Process killed = session.start(arguments);
  EXPECT_TRUE(killed.writesLine()) << killed.errors();
  const pid_t process = killed.id();
  killed.kill();
  kill(std::stoi(killed.output()), SIGKILL);
  return process;
}

pid_t killedAgent(Session& session, const Volume& volume, const std::string& base) {
  std::filesystem::create_directories(base + volume.folder());
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  EXPECT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.expose(base), S_OK);
  agent.kill();
  return agent.id();
}

}  // namespace test
