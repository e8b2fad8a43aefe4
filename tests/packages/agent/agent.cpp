// SPDX-License-Identifier: Apache-2.0
// agent DEVICE MOUNTPOINT BASE COMMAND: runs COMMAND while a snapshot of DEVICE is mounted at BASE/MOUNTPOINT.
#include <mirelsnap/SnapshotEngine.h>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;
volatile std::sig_atomic_t stopped = 0;

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  if (argc != 5 || fs::exists(argv[3])) return std::fputs("agent DEVICE MOUNTPOINT NEW_BASE COMMAND\n", stderr), 2;
  for (int signal : {SIGHUP, SIGINT, SIGTERM}) std::signal(signal, [](int) { stopped = 1; });
  QX_SetLogHandler([](unsigned short, const wchar_t* text, void*) { std::fprintf(stderr, "%ls\n", text); }, nullptr);
  const auto device = fs::path(argv[1]).wstring(), mountPoint = fs::path(argv[2]).wstring(),
             base = (fs::path(argv[3]) / "").parent_path().wstring();  // without / at its end
  const fs::path folder = base / fs::path(mountPoint).relative_path();
  auto* engine = (*GetCreatorFunction())();
  if (engine == nullptr) return 1;
  std::error_code error;
  fs::create_directories(folder, error);
  UnixSnapshotCoordinator::IUscAsync* job = nullptr;
  _SSGUIDPLAIN set{}, snapshot{};
  int status = USC_S_ASYNC_PENDING, snapResult = -1;
  bool done = engine->DoReconcile(nullptr) == S_OK && engine->StartSnapshotSet(&set) == S_OK &&
              engine->AddToSnapshotSet(device.c_str(), mountPoint.c_str(), &snapshot) == S_OK &&
              engine->DoSnapshotSet(&job) == S_OK;
  while (done && job->QueryStatus(&status, &snapResult) == S_OK && status == USC_S_ASYNC_PENDING) job->Wait(1000);
  if (done) job->Release();
  done = done && snapResult == 0 && !stopped && engine->ExposeSnapshotsInSnapshotSet(base.c_str()) == S_OK &&
         std::system(argv[4]) == 0;
  engine->UnExposeSnapshotsInSnapshotSet();
  engine->DeleteSnapshots(set, UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT_SET);
  engine->Release();
  for (fs::path left = folder; left != fs::path(base).parent_path(); left = left.parent_path()) fs::remove(left, error);
  return done && !stopped && !fs::exists(base, error) ? 0 : 1;
}
