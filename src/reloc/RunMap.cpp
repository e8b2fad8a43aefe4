// SPDX-License-Identifier: Apache-2.0
#include "reloc/RunMap.h"

void freeRuns(RunList* runs) noexcept {
  if (runs == nullptr) return;
  for (const _run* run : *runs) delete run;
  delete runs;
}

void freeRunMap(RunMap& runs) noexcept {
  for (const auto& [volume, list] : runs) freeRuns(list);
  runs.clear();
}
