// SPDX-License-Identifier: Apache-2.0
//
// What the library costs, against the bare system calls in the same run. Needs root; runs in a private world of its
// own, on loop devices over memory (about 10 GiB of it).
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>
#include <unistd.h>

#include "Rows.h"
#include "World.h"

int main(int argc, char** argv) {
  test::layPrivateWorld();
  const test::ProcFile driver("mirelsnap/dev", "1 3\n");
  if (SnapDriverInterface::Instance() == nullptr) return 1;
  setlogmask(LOG_MASK(LOG_EMERG));
  bool kept = true;
  for (const auto add : {&bench::addRelocationFiles, &bench::addTornFiles, &bench::addSnapCommands,
                         &bench::addMountTables, &bench::addNodes, &bench::addEngineCalls}) {
    bench::Suite suite;
    const bench::Kept needed = add(suite);
    kept = suite.run({argv, argv + argc}) && kept;
  }
  SnapDriverInterface::releaseInstance();
  unlink("/dev/mirelsnapctl");
  return kept ? 0 : 1;
}
