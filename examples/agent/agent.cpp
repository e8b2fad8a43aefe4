// SPDX-License-Identifier: Apache-2.0
//
// A whole backup agent: takes a snapshot of one volume, runs a command on it, cleans up.
//
//     agent DEVICE MOUNTPOINT BASE COMMAND
//     agent /dev/sdb1 /srv /run/agent 'tar -C /run/agent/srv -cf /backup/srv.tar .'
#include <mirelsnap/SnapshotEngine.h>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

using namespace UnixSnapshotCoordinator;
using Path = std::filesystem::path;

bool ok(const char* step, int result) {
  return result >= 0 || std::fprintf(stderr, "agent: %s: 0x%08X\n", step, static_cast<unsigned int>(result)) < 0;
}

bool takeSnapshot(IUscSnapshotEngine* engine) {
  IUscAsync* job = nullptr;
  if (!ok("DoSnapshotSet", engine->DoSnapshotSet(&job))) return false;
  int status = USC_S_ASYNC_PENDING, snapResult = -1;
  while (job->QueryStatus(&status, &snapResult) == S_OK && status == USC_S_ASYNC_PENDING) job->Wait(1000);
  job->Release();
  return ok("the snapshot", status);
}

bool backUp(IUscSnapshotEngine* engine, const Path& base, const Path& folder, const char* command) {
  create_directories(folder);  // the engine makes the base, but no folder in it
  bool done = ok("mount", engine->ExposeSnapshotsInSnapshotSet(base.wstring().c_str())) && std::system(command) == 0;
  engine->UnExposeSnapshotsInSnapshotSet();  // cannot remove the base yet: the folder made above is in it
  for (Path left = folder; left.native().size() >= base.native().size(); left = left.parent_path())
    if (std::error_code error; !remove(left, error)) std::fprintf(stderr, "agent: %s is left\n", left.c_str());
  return done;
}

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  IUscSnapshotEngine* engine = argc == 5 ? (*GetCreatorFunction())() : nullptr;
  if (engine == nullptr) return 2;
  const Path device = argv[1], mountPoint = argv[2], base = argv[3];
  ok("reconcile", engine->DoReconcile(base.wstring().c_str()));  // what an agent left that was killed
  _SSGUIDPLAIN set{}, id{};
  const bool done = ok("start", engine->StartSnapshotSet(&set)) &&
                    ok("add", engine->AddToSnapshotSet(device.wstring().c_str(), mountPoint.wstring().c_str(), &id)) &&
                    takeSnapshot(engine) && backUp(engine, base, base / mountPoint.relative_path(), argv[4]);
  engine->DeleteSnapshots(set, USC_OBJECT_SNAPSHOT_SET);  // where there is no snapshot, nothing is done
  engine->Release();
  return done ? 0 : 1;
}
