// SPDX-License-Identifier: Apache-2.0
//
// What is measured, a topic each. A topic's volumes and nodes are there while its pairs run, and no other's.
#pragma once

#include <memory>

#include "Suite.h"

namespace bench {

// What the pairs need until they have run.
using Kept = std::shared_ptr<void>;

Kept addRelocationFiles(Suite& suite);
Kept addTornFiles(Suite& suite);
Kept addSnapCommands(Suite& suite);
Kept addMountTables(Suite& suite);
Kept addNodes(Suite& suite);
Kept addEngineCalls(Suite& suite);

}  // namespace bench
