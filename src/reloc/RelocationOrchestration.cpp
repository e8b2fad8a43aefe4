// SPDX-License-Identifier: Apache-2.0
//
// The loop over a snap request: a relocation file for every volume before the snap, and their removal.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>

#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/RelocationStatus.h"

namespace {

using Placement = std::unique_ptr<LinuxSnapshotreloc>;
using VolumeIterator = std::list<SnapVolumeInformation>::iterator;

// Each of the four answers the placed object, the record's relocation fields being filled, or null, logged.

Placement placeFreely(SnapVolumeInformation& volume, unsigned long entriesInMemory) {
  auto reloc = std::make_unique<LinuxSnapshotreloc>(volume.getSnapVolumeNameString(), volume.getBlockSize(),
                                                    volume.getNumBlocks(), entriesInMemory);
  if (reloc->initialize() != kRelocSuccess) {
    syslog(LOG_ERR, "Reloc options are not correct.\n");
    return nullptr;
  }
  volume.setRelocFileName(reloc->GetRelocFileName());
  volume.setRelocVolumeName(reloc->GetRelocDeviceName());
  volume.setRelocFileSize(static_cast<unsigned int>(reloc->GetRelocNumBlks()));
  syslog(LOG_INFO, "SVName: %s, RFName: %s, RVName: %s, RVSize: %d.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocFileName(), volume.getcStrRelocVolumeName(), static_cast<int>(volume.getRelocFileSize()));
  return reloc;
}

Placement withCallersOptions(SnapVolumeInformation& volume, unsigned long entriesInMemory) {
  return std::make_unique<LinuxSnapshotreloc>(volume.getSnapVolumeNameString(), volume.getBlockSize(),
                                              volume.getRelocFileSize(), volume.getcStrRelocMountName(),
                                              entriesInMemory);
}

Placement placeOnMount(SnapVolumeInformation& volume, unsigned long entriesInMemory) {
  syslog(LOG_DEBUG, "SnapVolue: %s, RMountName: %s\n", volume.getcStrSnapVolumeName(), volume.getcStrRelocMountName());
  Placement reloc = withCallersOptions(volume, entriesInMemory);
  if (reloc->initializeRelocLocationOption(volume.getNumBlocks()) != kRelocSuccess) {
    syslog(LOG_ERR, "Unable to initialize user selected reloc option.\n");
    return nullptr;
  }
  volume.setRelocFileName(reloc->GetRelocFileName());
  volume.setRelocVolumeName(reloc->GetRelocDeviceName());
  volume.setRelocFileSize(static_cast<unsigned int>(reloc->GetRelocNumBlks()));
  // The contract: at error priority, although it reports success.
  syslog(LOG_ERR, "SVName: %s, RFName: %s, RVName: %s, RVSize: %d.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocFileName(), volume.getcStrRelocVolumeName(), static_cast<int>(volume.getRelocFileSize()));
  return reloc;
}

Placement placeWithSize(SnapVolumeInformation& volume, unsigned long entriesInMemory) {
  syslog(LOG_DEBUG, "SnapVolume: %s , RFSize: %d.\n", volume.getcStrSnapVolumeName(),
         static_cast<int>(volume.getRelocFileSize()));
  Placement reloc = withCallersOptions(volume, entriesInMemory);
  if (reloc->initializeRelocSizeOption() != kRelocSuccess) {
    syslog(LOG_ERR, "Not able to find appropriate volume for reloc file.\n");
    return nullptr;
  }
  volume.setRelocFileName(reloc->GetRelocFileName());
  volume.setRelocVolumeName(reloc->GetRelocDeviceName());
  // The contract: at error priority, although it reports success.
  syslog(LOG_ERR, "SVName: %s, RFName: %s, RVName: %s, RVSize: %d.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocFileName(), volume.getcStrRelocVolumeName(), static_cast<int>(volume.getRelocFileSize()));
  return reloc;
}

Placement placeAsGiven(SnapVolumeInformation& volume, unsigned long entriesInMemory) {
  syslog(LOG_INFO, "User Options -- SnapVolName: %s, RMountName: %s, RVSize: %d.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocMountName(), static_cast<int>(volume.getRelocFileSize()));
  Placement reloc = withCallersOptions(volume, entriesInMemory);
  if (reloc->validate() != kRelocSuccess) {
    syslog(LOG_ERR, "Reloc options are not correct.\n");
    return nullptr;
  }
  if (reloc->initializeUserSelectedOptions() != kRelocSuccess) {
    syslog(LOG_ERR, "Unable to initialize user selected options.\n");
    return nullptr;
  }
  volume.setRelocFileName(reloc->GetRelocFileName());
  volume.setRelocVolumeName(reloc->GetRelocDeviceName());
  syslog(LOG_DEBUG, "Final options -- SnapVolName: %s, RMountName: %s, RVolName: %s, RVSize: %d.\n",
         volume.getcStrSnapVolumeName(), volume.getcStrRelocMountName(), volume.getcStrRelocVolumeName(),
         static_cast<int>(volume.getRelocFileSize()));
  return reloc;
}

Placement place(SnapVolumeInformation& volume, unsigned long entriesInMemory) {
  const bool sizeGiven = volume.getRelocFileSize() != 0;
  const bool mountGiven = *volume.getcStrRelocMountName() != '\0';
  if (sizeGiven && mountGiven) return placeAsGiven(volume, entriesInMemory);
  if (sizeGiven) return placeWithSize(volume, entriesInMemory);
  if (mountGiven) return placeOnMount(volume, entriesInMemory);
  return placeFreely(volume, entriesInMemory);
}

// Places, registers and creates one volume's file and takes its size off `remaining`; false, logged, when a step fails.
bool makeRelocationFile(SnapDriverInterface& driver, SnapVolumeInformation& volume, unsigned long& remaining) {
  const Placement reloc = place(volume, remaining);
  if (reloc == nullptr) return false;
  // The contract: asked only now, so that the record of the volume that finds no memory left is placed all the same.
  if (remaining == 0) {
    syslog(LOG_ERR, "Not enough Memory to hold  relocationobjects\n");
    return false;
  }
  // The driver learns the mapping before the file exists. When the file fails, the mapping stays: the contract.
  if (driver.CreateRelocationFileMapping(reloc->GetSnappedDeviceName(), reloc->GetRelocFileName(), getpid()) != 0) {
    syslog(LOG_ERR, "Unable to create relocation file mapping.\n");
    return false;
  }
  if (reloc->CreateRelocFile() != kRelocSuccess) {
    syslog(LOG_ERR, "Reloc File couldnt be created.\n");
    return false;
  }
  volume.setRelocFileSize(static_cast<unsigned int>(reloc->GetRelocNumBlks()));
  remaining -= reloc->GetRelocNumBlks();
  return true;
}

void deleteMapping(SnapDriverInterface& driver, SnapVolumeInformation& volume) {
  if (driver.DeleteRelocationFileMapping(volume.getSnapVolumeNameString(), getpid()) != 0) {
    syslog(LOG_ERR, "Unable to delete the reloc file mapping.\n");
  }
}

// Removes the files and mappings of the volumes from `volume` to `end`. The records keep the names.
void undo(SnapDriverInterface& driver, VolumeIterator volume, VolumeIterator end) {
  for (; volume != end; ++volume) {
    unlink(volume->getcStrRelocFileName());
    deleteMapping(driver, *volume);
    syslog(LOG_INFO, "Deleted precreated RelocFile\n");
  }
}

}  // namespace

int SnapDriverInterface::deduceRelocLocations(std::list<SnapVolumeInformation>* volumes,
                                              unsigned long relocEntriesInMemory) {
  if (volumes == nullptr) return kRelocSuccess;
  unsigned long remaining = relocEntriesInMemory;
  VolumeIterator volume = volumes->begin();
  try {
    while (volume != volumes->end() && makeRelocationFile(*this, *volume, remaining)) ++volume;
  } catch (...) {
    undo(*this, volumes->begin(), volume);
    throw;
  }
  if (volume == volumes->end()) return kRelocSuccess;
  undo(*this, volumes->begin(), volume);
  return kRelocRequestUndone;
}

void SnapDriverInterface::cleanRelocFiles(std::list<SnapVolumeInformation>* volumes) {
  if (volumes == nullptr) return;
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo system;
  for (SnapVolumeInformation& volume : *volumes) {
    const std::string& fileName = volume.getRelocFileName();
    unlink(fileName.c_str());
    deleteMapping(*this, volume);
    const std::string directory = fileName.substr(0, fileName.rfind('/'));
    system.DeleteDirectoryIfEmpty(directory);
    syslog(LOG_DEBUG, "Deleted directory: %s.\n", directory.c_str());
    syslog(LOG_DEBUG, "Deleted precreated RelocFile: %s.\n", fileName.c_str());
  }
}
