// SPDX-License-Identifier: Apache-2.0
#include <mirelsnap/SnapshotEngine.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>

#include "Rows.h"

namespace bench {
namespace {

constexpr int kTimes = 10000;

double nanoseconds(const std::function<void()>& call) {
  double best = 1e9;
  for (int repetition = 0; repetition < 9; ++repetition) {
    const Stopwatch watch;
    for (int i = 0; i < kTimes; ++i) call();
    best = std::min(best, watch.seconds() / kTimes * 1e9);
  }
  return best;
}

}  // namespace

Kept addEngineCalls(Suite& suite) {
  UnixSnapshotCoordinator::IUscSnapshotEngine* const engine = GetCreatorFunction()();
  if (engine == nullptr) throw std::runtime_error("no engine can be made");
  const auto call = [&suite](const std::string& name, const std::function<void()>& action) {
    suite.figure("engine call " + name, nanoseconds(action), "ns", 1000);
  };
  call("AddRef and Release", [engine] {
    engine->AddRef();
    engine->Release();
  });
  call("SupportsPITMultiVolumeSnaps", [engine] {
    int supported = 0;
    engine->SupportsPITMultiVolumeSnaps(&supported);
  });
  call("GetCountOfVolumesInSnapshotSet", [engine] {
    unsigned int count = 0;
    engine->GetCountOfVolumesInSnapshotSet(&count);
  });
  call("IsSnapshotExposed", [engine] {
    int exposed = 0;
    engine->IsSnapshotExposed({}, &exposed);
  });
  call("SetOption of no snapshot", [engine] { engine->SetOption({}, L"RelocationFileSize", L"16"); });
  engine->Release();
  return nullptr;
}

}  // namespace bench
