// SPDX-License-Identifier: Apache-2.0
//
// The driver interface's value records with what the library itself needs beside them: the two string
// converters and the resolver from volume names to device numbers.
#pragma once

#include <mirelsnap/VolumeRecords.h>

#include <list>
#include <memory>
#include <string>

// A block device's number, as the driver's commands carry it.
struct DeviceNumberPair {
  unsigned int majorNum;
  unsigned int minorNum;
};

// Widens byte by byte, each byte sign-extended: no decoding, so byte 0xE9 becomes a negative code unit.
std::wstring StringToWString(const std::string& text);
// Keeps the low 8 bits of each character; higher bits are dropped.
std::string WStringToString(const std::wstring& text);

// The number of the block device `path` (the C library's split of the device number). 0; 8 the path cannot be asked
// for, with errno; 7 it is not a block device. Failures are logged and leave `*pair` as it was.
unsigned int getDeviceNumber(const char* path, DeviceNumberPair* pair);
// Notes that failure, right after it, where it ends an operation: many a name is only tried.
void noteBadDevice(const char* path, unsigned int result) noexcept;

// Resolves each name to its block device's number, in list order, into `pairs`, which has one element per
// name. 0; 3 when an argument is missing; 8 a device does not exist; 7 a name is not a block device. Pairs
// filled before a failure stay filled.
unsigned int getDeviceNumbers(std::list<std::wstring>* volumes, DeviceNumberPair* pairs);

// The numbers of all names, in list order. Null, logged, when there is no list (with the number `line`) or nothing in
// it (with the number after it), when memory is short and when a name is no block device.
std::unique_ptr<DeviceNumberPair[]> resolveVolumes(std::list<std::wstring>* volumes, int line);
