// SPDX-License-Identifier: Apache-2.0
//
// The driver's interface of the shipped library, call by call as a test orders. It is linked as any user links it and
// includes what such a user includes.
#include <fcntl.h>
#include <linux/fs.h>
#include <mirelsnap/DriverInterface.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "Channel.h"
#include "Wide.h"

namespace {

using test::Json;
using test::wide;

std::string narrow(const std::wstring& text) {
  std::string result;
  for (const wchar_t character : text) result += static_cast<char>(character);
  return result;
}

template <class Value>
Value asked(const std::string& path, unsigned long request) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Value value{};
  if (descriptor >= 0) {
    static_cast<void>(ioctl(descriptor, request, &value));
    close(descriptor);
  }
  return value;
}

SnapVolumeInformation requestFrom(const Json& volume) {
  const auto blockSize = static_cast<unsigned int>(asked<int>(volume["folder"], FIGETBSZ));
  const auto bytes = asked<unsigned long>(volume["device"], BLKGETSIZE64);
  const bool tracked = volume["tracked"];
  return {
      blockSize, bytes / blockSize, wide(volume["device"]), volume["blocks"], wide(volume["mount"]), tracked, !tracked,
      0};
}

std::list<std::wstring> wideNames(const Json& devices) {
  std::list<std::wstring> names;
  for (const std::string device : devices) names.push_back(wide(device));
  return names;
}

Json snap(SnapDriverInterface& driver, const Json& order) {
  std::list<SnapVolumeInformation> volumes;
  for (const Json& volume : order["volumes"]) volumes.push_back(requestFrom(volume));
  std::list<std::wstring> devices;
  Json answer = {{"result", driver.SnapVolume(&volumes, &devices)},
                 {"devices", Json::array()},
                 {"files", Json::array()},
                 {"blocks", Json::array()}};
  for (const std::wstring& device : devices) answer["devices"].push_back(narrow(device));
  for (const SnapVolumeInformation& volume : volumes) {
    answer["files"].push_back(volume.getRelocFileName());
    answer["blocks"].push_back(volume.getRelocFileSize());
  }
  return answer;
}

Json snapped(SnapDriverInterface& driver) {
  std::list<SnappedVolumeInformation> volumes;
  const unsigned int result = driver.GetSnappedVolumeDetails(volumes);
  if (result != 0) return {{"failed", result}};
  Json all = Json::array();
  for (const SnappedVolumeInformation& volume : volumes) {
    all.push_back({{"volume", narrow(volume.getSnappedVolumeName())},
                   {"process", volume.getAppPid()},
                   {"file", narrow(volume.getRelocFileName())},
                   {"blocks", volume.getRelocFileSize()}});
  }
  return all;
}

Json mappings(SnapDriverInterface& driver) {
  std::list<RelocFileMappingInformation> mapped;
  const unsigned int result = driver.GetRelocFileMapping(mapped);
  if (result != 0) return {{"failed", result}};
  Json all = Json::array();
  for (const RelocFileMappingInformation& mapping : mapped) {
    all.push_back({{"volume", mapping.getSnappedVolumeName()},
                   {"process", mapping.getAppPid()},
                   {"file", mapping.getRelocFileName()}});
  }
  return all;
}

Json version(SnapDriverInterface& driver) {
  std::string text;
  driver.GetDriverVersionDetail(text);
  return {{"version", text}};
}

Json trackingVars(SnapDriverInterface& driver, const Json& order) {
  std::string guid;
  unsigned int number = 0;
  const unsigned int result = driver.GetVtrackVars(wide(order["device"]), guid, number);
  return {{"result", result}, {"guid", guid}, {"number", number}};
}

Json changes(SnapDriverInterface& driver, const Json& order) {
  std::wstring device = wide(order["device"]);
  std::vector<_run> runs(order["room"].get<unsigned int>());
  if (!runs.empty()) runs[0].startBlock = order["from"];
  SectorBitmap bitmap(order["type"].get<_updateBitmapIoctlType>(), device, order["room"], runs.data());
  const unsigned int result = driver.GetVtrackBitmap(bitmap);
  Json answer = {{"result", result}, {"type", bitmap.getUpdateType()}, {"runs", Json::array()}};
  for (unsigned int i = 0; result == 0 && i < bitmap.getNumOfRuns(); ++i) {
    answer["runs"].push_back({runs.at(i).startBlock, runs.at(i).numBlocks});
  }
  return answer;
}

Json pushUsed(SnapDriverInterface& driver, const Json& order) {
  std::wstring device = wide(order["device"]);
  std::vector<_run> runs;
  for (const Json& run : order["runs"]) runs.push_back({run[0], run[1]});
  SectorBitmap bitmap(device, static_cast<unsigned int>(runs.size()), runs.data());
  return {{"result", driver.UpdateUsedSectorBitmap(bitmap)}};
}

using Operation = std::function<Json(SnapDriverInterface&, const Json&)>;

const std::map<std::string, Operation> operations = {
    {"snap", snap},
    {"unsnap",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       auto names = wideNames(order["devices"]);
       return {{"result", driver.UnSnapVolume(&names, false)}};
     }},
    {"freeze",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       auto names = wideNames(order["devices"]);
       return {{"result", driver.FreezeVolume(&names)}};
     }},
    {"thaw",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       auto names = wideNames(order["devices"]);
       return {{"result", driver.ThawVolume(&names)}};
     }},
    {"reconcile",
     [](SnapDriverInterface& driver, const Json&) -> Json {
       return {{"result", driver.ReconcileAndCleanup()}};
     }},
    {"snapped", [](SnapDriverInterface& driver, const Json&) { return snapped(driver); }},
    {"mappings", [](SnapDriverInterface& driver, const Json&) { return mappings(driver); }},
    {"mark",
     [](SnapDriverInterface& driver, const Json&) -> Json {
       return {{"result", driver.SetLogLevel(3)}};
     }},
    {"is_tracked",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       return {{"tracked", driver.IsVtrackActive(wide(order["device"]))}};
     }},
    {"tracking_vars", trackingVars},
    {"changes", changes},
    {"push_used", pushUsed},
    {"stop_tracking",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       auto names = wideNames(order["devices"]);
       return {{"result", driver.StopVtrack(&names)}};
     }},
    {"dump_state",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       const std::wstring file = wide(order["file"]);
       return {{"result", driver.DumpState(0, file.empty() ? 0 : 1, L"", file)}};
     }},
    {"set_log_level",
     [](SnapDriverInterface& driver, const Json& order) -> Json {
       return {{"result", driver.SetLogLevel(order["level"].get<unsigned char>())}};
     }},
    {"version", [](SnapDriverInterface& driver, const Json&) { return version(driver); }},
};

}  // namespace

int main() {
  SnapDriverInterface* driver = SnapDriverInterface::Instance();
  if (driver == nullptr) return 1;
  test::serve(test::Channel(test::kChannelDescriptor), [&](const Json& order, const std::vector<int>&) {
    return operations.at(order["operation"])(*driver, order);
  });
  SnapDriverInterface::releaseInstance();
}
