// SPDX-License-Identifier: Apache-2.0
//
// What the driver's requests are called, for whoever tells of one that failed.
#pragma once

// "IOC_SNAP"; "?" for a number that is no request.
const char* requestName(unsigned long request) noexcept;
