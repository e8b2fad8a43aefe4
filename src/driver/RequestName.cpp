// SPDX-License-Identifier: Apache-2.0
#include "driver/RequestName.h"

#include "driver/DriverProtocol.h"

const char* requestName(unsigned long request) noexcept {
#define NAME_OF(name) \
  case name:          \
    return #name
  switch (request) {
    NAME_OF(IOC_FREEZE);
    NAME_OF(IOC_THAW);
    NAME_OF(IOC_SET_LOG_LEVEL);
    NAME_OF(IOC_DUMP_STATE);
    NAME_OF(IOC_UPDATE_BITMAP);
    NAME_OF(IOC_CHECK_VOLUME_SNAPPED);
    NAME_OF(IOC_GET_NUM_OF_SNAPPED_VOLUMES);
    NAME_OF(IOC_GET_SNAPPED_VOL_DETAILS);
    NAME_OF(IOC_CREATE_RELOC_FILE_MAPPING);
    NAME_OF(IOC_DELETE_RELOC_FILE_MAPPING);
    NAME_OF(IOC_GET_NUM_OF_RELOC_FILE_MAPPING);
    NAME_OF(IOC_GET_RELOC_FILE_MAPPING);
    NAME_OF(IOC_GET_DRIVER_VERSION);
    NAME_OF(IOC_CHECK_VOLUME_FROZEN);
    NAME_OF(IOC_SNAP);
    NAME_OF(IOC_SNAP_DISCARD);
    NAME_OF(IOC_GET_VDIFF);
    NAME_OF(IOC_GET_VTRACK_VARS);
    NAME_OF(IOC_STOP_VTRACK);
    NAME_OF(IOC_IS_VTRACK_ACTIVE);
    NAME_OF(IOC_VERIFY_AND_CLEAN_VOLUMES);
    default:
      return "?";
  }
#undef NAME_OF
}
