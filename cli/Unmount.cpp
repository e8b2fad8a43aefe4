// SPDX-License-Identifier: Apache-2.0
#include "Unmount.h"

#include <cerrno>
#include <cstdio>
#include <thread>

#include "Processes.h"
#include "Text.h"

namespace cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 20ms;
// Nobody is told of what lasts no longer: a look at a folder, a list of the open files.
constexpr auto kMoment = 500ms;
constexpr auto kLimit = 5s;

void tell(const std::string& folder) {
  std::fprintf(stderr, "%s\n",
               onOneLine("mirelsnap: " + folder + ": cannot be unmounted yet: " + usersText(usersOf(folder)) +
                         "; trying again for " + std::to_string(kLimit.count()) + " seconds")
                   .c_str());
}

}  // namespace

int Patience::unmount(const std::string& folder, const std::function<int()>& unmount) {
  if (!mBegin) mBegin = Clock::now();
  bool told = false;
  for (;;) {
    const int error = unmount();
    const auto passed = Clock::now() - *mBegin;
    if (error != EBUSY || passed >= kLimit) return error;
    if (!told && passed >= kMoment) {
      tell(folder);
      told = true;
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace cli
