// SPDX-License-Identifier: Apache-2.0
//
// The tables of docs/driver-protocol.md against the records of the code.
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "Names.h"
#include "World.h"
#include "driver/DriverProtocol.h"

namespace {

struct Place {
  std::size_t offset;
  std::size_t size;
  bool operator==(const Place&) const = default;
};
void PrintTo(const Place& place, std::ostream* out) { *out << place.size << " bytes at " << place.offset; }

using Fields = std::map<std::string, Place>;

#define FIELD(record, name)                                       \
  {                                                               \
#name, Place { offsetof(record, name), sizeof(record::name) } \
  }

struct Record {
  std::size_t size;
  Fields fields;
};

// What the compiler says.
const std::map<std::string, Record>& compiledRecords() {
  static const std::map<std::string, Record> records = {
      {"_ioctlCmd",
       {sizeof(_ioctlCmd),
        {FIELD(_ioctlCmd, flags), FIELD(_ioctlCmd, requestValue), FIELD(_ioctlCmd, handshakeValue),
         FIELD(_ioctlCmd, handshakeCheck), FIELD(_ioctlCmd, length), FIELD(_ioctlCmd, driverStatus)}}},
      {"_run", {sizeof(_run), {FIELD(_run, startBlock), FIELD(_run, numBlocks)}}},
      {"DriverVersionPayload", {sizeof(DriverVersionPayload), {FIELD(DriverVersionPayload, version)}}},
      {"LogLevelPayload", {sizeof(LogLevelPayload), {FIELD(LogLevelPayload, level)}}},
      {"VolumeCheckPayload",
       {sizeof(VolumeCheckPayload), {FIELD(VolumeCheckPayload, majorNum), FIELD(VolumeCheckPayload, minorNum)}}},
      {"VolumeListEntry",
       {sizeof(VolumeListEntry),
        {FIELD(VolumeListEntry, majorNum), FIELD(VolumeListEntry, minorNum), FIELD(VolumeListEntry, reserved_)}}},
      {"RelocFileMappingEntry",
       {sizeof(RelocFileMappingEntry),
        {FIELD(RelocFileMappingEntry, appPid), FIELD(RelocFileMappingEntry, snappedVolumeName),
         FIELD(RelocFileMappingEntry, relocFileName)}}},
      {"CountPayload", {sizeof(CountPayload), {FIELD(CountPayload, reserved_)}}},
      {"SnappedVolumeEntry",
       {sizeof(SnappedVolumeEntry),
        {FIELD(SnappedVolumeEntry, numBlocks), FIELD(SnappedVolumeEntry, blockSize),
         FIELD(SnappedVolumeEntry, relocFileSize), FIELD(SnappedVolumeEntry, majorNum),
         FIELD(SnappedVolumeEntry, minorNum), FIELD(SnappedVolumeEntry, appPid), FIELD(SnappedVolumeEntry, deviceState),
         FIELD(SnappedVolumeEntry, relocFileName), FIELD(SnappedVolumeEntry, snappedVolumeName)}}},
      {"SnapVolumeEntry",
       {sizeof(SnapVolumeEntry),
        {FIELD(SnapVolumeEntry, numBlocks), FIELD(SnapVolumeEntry, blockSize), FIELD(SnapVolumeEntry, relocFileSize),
         FIELD(SnapVolumeEntry, hashSize), FIELD(SnapVolumeEntry, appPid), FIELD(SnapVolumeEntry, volumeMajor),
         FIELD(SnapVolumeEntry, volumeMinor), FIELD(SnapVolumeEntry, relocVolumeMajor),
         FIELD(SnapVolumeEntry, relocVolumeMinor), FIELD(SnapVolumeEntry, relocFileName),
         FIELD(SnapVolumeEntry, volumeName), FIELD(SnapVolumeEntry, numRuns), FIELD(SnapVolumeEntry, vtrackRequest),
         FIELD(SnapVolumeEntry, independentSnapshotRequest), FIELD(SnapVolumeEntry, snapUsageType),
         FIELD(SnapVolumeEntry, trackingGuid)}}},
      {"DiscardEntry",
       {sizeof(DiscardEntry),
        {FIELD(DiscardEntry, majorNum), FIELD(DiscardEntry, minorNum), FIELD(DiscardEntry, result),
         FIELD(DiscardEntry, flag), FIELD(DiscardEntry, relocFileName)}}},
      {"TrackingVarsPayload",
       {sizeof(TrackingVarsPayload),
        {FIELD(TrackingVarsPayload, majorNum), FIELD(TrackingVarsPayload, minorNum),
         FIELD(TrackingVarsPayload, sequenceNumber), FIELD(TrackingVarsPayload, guid)}}},
      {"BitmapPayload",
       {sizeof(BitmapPayload),
        {FIELD(BitmapPayload, majorNum), FIELD(BitmapPayload, minorNum), FIELD(BitmapPayload, updateType),
         FIELD(BitmapPayload, numRuns)}}},
      {"DumpStatePayload",
       {sizeof(DumpStatePayload),
        {FIELD(DumpStatePayload, flag), FIELD(DumpStatePayload, fileFlag), FIELD(DumpStatePayload, reserved_),
         FIELD(DumpStatePayload, spare_), FIELD(DumpStatePayload, fileName), FIELD(DumpStatePayload, tail_)}}},
  };
  return records;
}

#define REQUEST(name) \
  { #name, name }

const std::map<std::string, unsigned long>& compiledRequests() {
  static const std::map<std::string, unsigned long> requests = {
      REQUEST(IOC_FREEZE),
      REQUEST(IOC_THAW),
      REQUEST(IOC_SET_LOG_LEVEL),
      REQUEST(IOC_DUMP_STATE),
      REQUEST(IOC_UPDATE_BITMAP),
      REQUEST(IOC_CHECK_VOLUME_SNAPPED),
      REQUEST(IOC_GET_NUM_OF_SNAPPED_VOLUMES),
      REQUEST(IOC_GET_SNAPPED_VOL_DETAILS),
      REQUEST(IOC_CREATE_RELOC_FILE_MAPPING),
      REQUEST(IOC_DELETE_RELOC_FILE_MAPPING),
      REQUEST(IOC_GET_NUM_OF_RELOC_FILE_MAPPING),
      REQUEST(IOC_GET_RELOC_FILE_MAPPING),
      REQUEST(IOC_GET_DRIVER_VERSION),
      REQUEST(IOC_CHECK_VOLUME_FROZEN),
      REQUEST(IOC_SNAP),
      REQUEST(IOC_SNAP_DISCARD),
      REQUEST(IOC_GET_VDIFF),
      REQUEST(IOC_GET_VTRACK_VARS),
      REQUEST(IOC_STOP_VTRACK),
      REQUEST(IOC_IS_VTRACK_ACTIVE),
      REQUEST(IOC_VERIFY_AND_CLEAN_VOLUMES),
  };
  return requests;
}

std::string unquoted(const std::string& text) {
  std::smatch match;
  return std::regex_search(text, match, std::regex("`([^`]+)`")) ? match[1].str() : text;
}

// The cells of a line of a table; none when it is not one, or its ruler.
std::vector<std::string> cells(const std::string& line) {
  std::vector<std::string> result;
  if (line.empty() || line.front() != '|' || line.rfind("|---", 0) == 0) return result;
  std::istringstream stream(line.substr(1));
  for (std::string cell; std::getline(stream, cell, '|');) {
    const auto first = cell.find_first_not_of(' ');
    result.push_back(first == std::string::npos ? "" : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
  }
  return result;
}

bool isNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

struct Document {
  std::map<std::string, Fields> records;
  std::map<std::string, std::vector<Place>> order;           // the rows of each record, from the top
  std::map<std::string, std::vector<std::string>> requests;  // the cells of each row
};

Document readDocument() {
  Document document;
  std::istringstream lines(test::readFile(PROTOCOL_DOCUMENT));
  std::string record;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("#", 0) == 0) record = line.rfind("### `", 0) == 0 ? unquoted(line) : "";
    const std::vector<std::string> row = cells(line);
    if (row.size() >= 4 && !record.empty() && isNumber(row[0])) {
      const Place place{std::stoul(row[0]), std::stoul(row[1])};
      document.records[record].emplace(unquoted(row[2]), place);
      document.order[record].push_back(place);
    } else if (row.size() >= 7 && row[0].rfind("`IOC_", 0) == 0 && isNumber(row[1])) {
      document.requests.emplace(unquoted(row[0]), row);
    }
  }
  return document;
}

template <class Map>
std::set<std::string> keys(const Map& map) {
  std::set<std::string> result;
  for (const auto& [key, value] : map) result.insert(key);
  return result;
}

TEST(DriverProtocolDocument, has_every_field_of_every_record_where_the_code_has_it) {
  const Document document = readDocument();
  EXPECT_EQ(keys(document.records), keys(compiledRecords()));
  for (const auto& [name, record] : compiledRecords()) {
    const auto found = document.records.find(name);
    ASSERT_NE(found, document.records.end()) << name;
    EXPECT_EQ(found->second, record.fields) << name;
  }
}

// Were a field missing here and in the document alike, there would be a gap.
TEST(DriverProtocolDocument, leaves_no_gap_in_a_record) {
  const Document document = readDocument();
  for (const auto& [name, record] : compiledRecords()) {
    std::size_t end = 0;
    for (const Place& place : document.order.at(name)) {
      EXPECT_EQ(place.offset, end) << name;
      end = place.offset + place.size;
    }
    EXPECT_EQ(end, record.size) << name;
  }
}

TEST(DriverProtocolDocument, knows_every_record_of_the_header) {
  std::set<std::string> expected = test::namesIn(PROTOCOL_HEADER, "\nstruct (\\w+) \\{");
  expected.insert("_run");
  EXPECT_EQ(keys(compiledRecords()), expected);
}

TEST(DriverProtocolDocument, has_every_request_with_its_number) {
  const Document document = readDocument();
  EXPECT_EQ(keys(compiledRequests()), test::namesIn(PROTOCOL_HEADER, "unsigned long (IOC_\\w+)"));
  EXPECT_EQ(keys(document.requests), keys(compiledRequests()));
  for (const auto& [name, row] : document.requests)
    EXPECT_EQ(0xC01C5300UL + std::stoul(row[1]), compiledRequests().at(name)) << name;
}

// "27 + 12 n" for n records of 12 bytes, "35" for one record with or without
// the trailing zeros.
TEST(DriverProtocolDocument, has_the_length_of_every_command) {
  for (const auto& [name, row] : readDocument().requests) {
    const std::size_t size = compiledRecords().at(unquoted(row[2])).size;
    const std::string plain = std::to_string(sizeof(_ioctlCmd) + size);
    const std::string trailed = std::to_string(sizeof(_ioctlCmd) + size + kDriverTrailerSize);
    const std::string empty = std::to_string(sizeof(_ioctlCmd) + kDriverTrailerSize);
    if (name == "IOC_SNAP") {
      EXPECT_EQ(row[4], empty + " + each entry's");
    } else if (row[2].find("n runs") != std::string::npos) {
      EXPECT_EQ(row[4], trailed + " + " + std::to_string(sizeof(_run)) + " n") << name;
    } else if (row[3] == "n") {
      EXPECT_EQ(row[4], empty + " + " + std::to_string(size) + " n") << name;
    } else {
      EXPECT_TRUE(row[4] == plain || row[4] == trailed) << name << ": " << row[4];
    }
  }
}

TEST(DriverProtocolDocument, has_the_size_of_a_snap_entry) {
  EXPECT_NE(test::readFile(PROTOCOL_DOCUMENT)
                .find(std::to_string(kSnapEntrySize) + " + " + std::to_string(sizeof(_run)) + " × `numRuns` bytes"),
            std::string::npos);
}

struct Status {
  std::string value;
  std::string name;
  bool operator==(const Status&) const = default;
};
void PrintTo(const Status& status, std::ostream* out) { *out << status.value << ' ' << status.name; }

// The rows that begin with a value; the others say more of the row before.
std::map<std::string, Status> writtenStatuses() {
  std::map<std::string, Status> statuses;
  std::istringstream lines(test::readFile(PROTOCOL_DOCUMENT));
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> row = cells(line);
    if (row.size() == 5 && row[1].rfind("`kStatus", 0) == 0) statuses[unquoted(row[1])] = {row[0], unquoted(row[2])};
  }
  return statuses;
}

#define STATUS(name)                                                          \
  {                                                                           \
#name, { std::to_string(static_cast<int>(name)), driverStatusName(name) } \
  }

TEST(DriverProtocolDocument, has_every_status_with_its_value_and_its_name) {
  const std::map<std::string, Status> compiled = {
      STATUS(kStatusSnapped),       STATUS(kStatusOneSnapped), STATUS(kStatusNotSnapped),
      STATUS(kStatusOneNotSnapped), STATUS(kStatusFrozen),     STATUS(kStatusNotFrozen),
      STATUS(kStatusSizeChanged),   STATUS(kStatusTracked),    STATUS(kStatusNotTracked)};
  EXPECT_EQ(keys(compiled), test::namesIn(PROTOCOL_HEADER, "  (kStatus\\w+) = "));
  EXPECT_EQ(writtenStatuses(), compiled);
}

}  // namespace
