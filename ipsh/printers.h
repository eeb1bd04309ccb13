// SPDX-License-Identifier: Apache-2.0
// Two ways to show the same decoded rows: tables for people, JSON for programs. A command decodes once and calls the
// printer of its kind through the table of functions that --json chose.
#ifndef IPSH_PRINTERS_H
#define IPSH_PRINTERS_H

#include <optional>
#include <vector>

#include "captured_row.h"
#include "control_state.h"
#include "doctor.h"
#include "exit_code.h"
#include "explain.h"
#include "mbuf/pool.h"
#include "mtrack/mtrack_writer.h"
#include "mts/mts_server.h"
#include "ping.h"
#include "query_run.h"
#include "requests.h"
#include "routes.h"
#include "services.h"
#include "snapshot.h"
#include "system_state.h"
#include "watch.h"

namespace ipsh {

// All write to standard output, whole lines; watch output is flushed at once.
struct Printers {
  void (*contexts)(const std::vector<ContextRow> &rows);
  void (*interfaces)(const std::vector<InterfaceRow> &rows);
  void (*addresses)(const std::vector<AddressRow> &rows);
  void (*memory)(const std::vector<rsw::MemoryUse> &rows);
  void (*clients)(const std::vector<ClientRow> &rows);
  void (*messages)(const std::vector<MessageRow> &rows);
  void (*packets)(const std::vector<PacketRow> &rows);
  void (*queues)(const std::vector<rsw::MtsQueueUse> &rows);
  void (*mbufs)(const rsw::PoolReport &report);
  void (*routes)(const RouteListing &listing);
  void (*vips)(const std::vector<VipRow> &rows);
  void (*groups)(const std::vector<GroupRow> &rows);
  void (*router_ids)(const std::vector<RouterIdRow> &rows);
  void (*counters)(const std::vector<CounterRow> &rows, const std::optional<LoadShare> &share);
  void (*explanation)(const Explanation &explanation);
  void (*system)(const SystemState &state);
  void (*diagnosis)(const Diagnosis &diagnosis);
  void (*supervisor)(uint32_t state);  // after it was set
  void (*request)(const RequestRow &row);
  void (*query)(const QueryResult &result);
  void (*query_list)();
  WatchOutput watch;
  void (*captured)(const CapturedRow &row);
  PingOutput ping;
  void (*failure)(const Failure &failure);
};

extern const Printers table_printers;
extern const Printers json_printers;

}  // namespace ipsh

#endif
