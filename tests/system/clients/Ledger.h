// SPDX-License-Identifier: Apache-2.0
//
// Clients of a database that keep a ledger of their own of what they asked for and what was acknowledged, and when.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "Postgresql.h"

namespace test {

using Moment = std::chrono::steady_clock::time_point;  // monotonic

// One client: inserts (client, 1), (client, 2), ... into the table "ledger", each in a transaction of its own, one
// after the other. What it knows stands in a file outside the database's volumes.
class Ledger {
 public:
  static void makeTable(const Server& server, const std::string& tablespace);

  Ledger(const Server& server, int client);
  ~Ledger();
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  int client() const { return mClient; }
  // Waits for `more` acknowledgements; false when the database stops answering.
  bool goesOn(long more) const;
  // The last transaction that was acknowledged, or begun, before `moment`; 0 is none.
  long acknowledgedBefore(Moment moment) const { return lastBefore("acknowledged", moment); }
  long begunBefore(Moment moment) const { return lastBefore("begun", moment); }

 private:
  long lastBefore(const std::string& wanted, Moment moment) const;
  void work();

  const int mClient;
  TempDir mDir;
  int mDatabase = -1;  // a socket to psql's standard streams
  pid_t mProcess = -1;
  std::atomic<long> mAcknowledged{0};
  std::atomic<bool> mStop{false};
  std::atomic<bool> mEnded{false};
  std::thread mThread;
};

}  // namespace test
