// SPDX-License-Identifier: Apache-2.0
// The arena: what memory of a segment is whose, for ever, and when a retired record may live again.
//
// In the segment, at `first` rounded up to 64 bytes, stands the chunk table: a count of chunks in use and one entry for
// every 64 KiB chunk that the window could hold. The chunks themselves begin at the next multiple of 64 KiB. A chunk is
// given a type and a record size once, by filling its entry and then counting it; after that the entry never changes.
// This makes memory type-stable over restarts: the next writer finds each chunk's type, and a chunk whose type or size
// it does not know is left alone for ever.
//
// One more thing outlives a writer: a mark for each record, one bit at the end of its chunk, that says whether it was
// given out. The mark is set before anybody can be led to the record, and cleared only when nobody can reach it any
// more, so the next writer may use what is unmarked at once, whenever the previous one was killed. Without the marks
// each restart would have to leave all memory alone until it has built everything anew, and take that much more of the
// window.
//
// Everything else is the writer's private memory: one byte of state per record, a queue of free records per type
// (oldest first, so that a record rests as long as possible), and the queue of retired records. Retired records are
// tagged in batches: tick() closes the batch with one epoch from advance(), and the batch at the head of the queue is
// freed when its quarantine is over and its epoch has passed. One advance serves all records of a batch, and the head
// decides for all behind it, since both times and epochs only grow.
//
// The quarantine protects what epochs cannot: readers that walk a list without the lock. It also covers a reader whose
// store of its epoch is still on the way to memory.
//
// Zeroing a record at allocation is done in relaxed atomic words, because such a lock-free walker may still be reading
// a `next` in it: it reads the old word or zero, never half of each.
//
// What must never happen: a record on a free queue that a reader can still reach by a word it has read under the lock.
// Hence the order: unlinked by the caller, then retire(), then advance(), and only then a place in a batch.
#include "sm/arena.h"

#include <stdlib.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <deque>

#include "log/log_writer.h"

namespace rsw {
namespace {

constexpr uint32_t chunk_bytes = 64 * 1024;
constexpr uint32_t table_magic = 0x41524e42u;

struct ChunkEntry {
  uint16_t type;  // 0: not in use
  uint16_t
      position;     // in the run of chunks of one large record, from 0; bit 15: the mark of a record that fills a chunk
  uint32_t stride;  // bytes from one record to the next
};
static_assert(sizeof(ChunkEntry) == 8);
static_assert(offsetof(ChunkEntry, stride) == 4);

struct ChunkTable {
  uint32_t magic;
  uint32_t first_chunk;  // address
  uint32_t chunk_limit;  // entries
  uint32_t chunks_in_use;
  // ChunkEntry[chunk_limit] follow
};
static_assert(sizeof(ChunkTable) == 16);
static_assert(offsetof(ChunkTable, chunks_in_use) == 12);

constexpr uint16_t entry_mark = 0x8000;

// Records of that stride in one chunk, with a mark for each; 1 for a large one, whose mark stands in the chunk's entry.
constexpr uint32_t records_per_chunk(uint32_t stride) {
  uint32_t records = chunk_bytes / stride;
  while (records > 1 && records * stride + (records + 31) / 32 * 4 > chunk_bytes) --records;
  return records > 1 ? records : 1;
}
static_assert(records_per_chunk(8) == 8065);
static_assert(records_per_chunk(40000) == 1);

constexpr uint32_t round_up(uint32_t value, uint32_t to) {
  return (value + to - 1) / to * to;
}

template <class T>
T *at(uint32_t address) {
  return reinterpret_cast<T *>(static_cast<uintptr_t>(address));
}

uint32_t address_of(const void *record) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record));
}

enum class State : uint8_t { unused, free, live, retired, unadopted };

struct Chunk {  // the writer's own notes on one chunk
  uint16_t type = 0;
  std::vector<State> states;  // of the records that begin in it; the first chunk of a run holds the run's one record
};

struct Type {
  RecordTypeInfo info{};
  uint32_t stride = 0;
  uint32_t per_chunk = 0;   // records; 1 for a large record
  uint32_t chunks = 1;      // chunks that one record takes, or 1
  uint32_t fresh_next = 0;  // records of the newest chunk that were never handed out: [fresh_next, fresh_end)
  uint32_t fresh_end = 0;
  std::deque<uint32_t> free;
  uint64_t live = 0;
  uint64_t retired = 0;
  uint64_t left = 0;
};

struct Retired {
  uint32_t address;
  RecordType type;
};

struct Batch {
  uint32_t epoch;
  std::chrono::steady_clock::time_point since;
  size_t records;
};

class SegmentArena final : public Arena {
 public:
  SegmentArena(std::shared_ptr<SegmentMap> segment, Epochs &epochs, Domain domain, ArenaLimits limits)
      : segment_(std::move(segment)), epochs_(epochs), domain_(domain), limits_(limits) {}

  bool begin(uint32_t first, std::span<const RecordTypeInfo> types, std::string *reason);

  void *allocate(RecordType type) override;
  void retire(RecordType type, void *record) override;
  void give_back(RecordType type, void *record) override;
  bool adopt(RecordType type, void *record) override;
  void retire_unadopted() override;
  void tick(std::chrono::steady_clock::time_point now) override;
  [[nodiscard]] uint64_t retired_bytes() const override { return retired_bytes_; }
  [[nodiscard]] std::vector<RecordTypeUse> use() const override;

 private:
  bool add_types(std::span<const RecordTypeInfo> types, std::string *reason);
  bool begin_table(uint32_t first, std::string *reason);
  void read_chunks();
  bool add_chunk(Type &type);
  [[nodiscard]] ChunkEntry &entry(uint32_t chunk) const { return at<ChunkEntry>(table_ + sizeof(ChunkTable))[chunk]; }
  [[nodiscard]] ChunkTable &head() const { return *at<ChunkTable>(table_); }
  [[nodiscard]] State *state_of(RecordType type, const void *record);
  [[nodiscard]] bool marked(const Type &type, uint32_t chunk, uint32_t record) const;
  void mark(const Type &type, uint32_t address, bool given_out);
  void put_in_retirement(Type &type, uint32_t address);
  void free_batch(const Batch &batch);
  void overrule_holders(uint32_t epoch);

  std::shared_ptr<SegmentMap> segment_;
  Epochs &epochs_;
  const Domain domain_;
  const ArenaLimits limits_;
  uint32_t table_ = 0;  // address of the chunk table
  uint32_t first_chunk_ = 0;
  uint32_t chunk_limit_ = 0;
  std::vector<Chunk> chunks_;
  std::vector<Type> types_;  // by type number; entries of unknown numbers have stride 0
  std::deque<Retired> retired_;
  std::deque<Batch> batches_;  // of retired_, from its front
  size_t untagged_ = 0;        // at the back of retired_, in no batch yet
  uint64_t retired_bytes_ = 0;
  bool full_logged_ = false;
};

bool SegmentArena::add_types(std::span<const RecordTypeInfo> types, std::string *reason) {
  for (const RecordTypeInfo &info : types) {
    const bool aligned = info.align >= 8 && info.align <= 64 && (info.align & (info.align - 1)) == 0;
    if (info.type == 0 || info.size == 0 || info.size > segment_->layout().size || !aligned) {
      *reason = "the record type " + std::string(info.name) + " has no usable number, size or alignment";
      return false;
    }
    if (types_.size() <= info.type) types_.resize(info.type + size_t{1});
    Type &type = types_[info.type];
    if (type.stride != 0) {
      *reason = "two record types have number " + std::to_string(info.type);
      return false;
    }
    type.info = info;
    type.stride = round_up(info.size, info.align);
    type.per_chunk = records_per_chunk(type.stride);
    type.chunks = round_up(type.stride, chunk_bytes) / chunk_bytes;
  }
  return true;
}

// Finds the table where an earlier writer left it, or makes it.
bool SegmentArena::begin_table(uint32_t first, std::string *reason) {
  const SegmentLayout &layout = segment_->layout();
  const std::string name(layout.name);
  if (first < sizeof(SegmentHeader) || first > layout.size - 4 * chunk_bytes) {
    *reason = name + ": no room for records behind the fixed area";
    return false;
  }
  // As many entries as chunks fit, counted generously; the last page of the window stays unused.
  const uint32_t table = round_up(first, 64);
  const uint32_t generous = (layout.size - table) / chunk_bytes + 1;
  const uint32_t table_end =
      table + static_cast<uint32_t>(sizeof(ChunkTable)) + generous * static_cast<uint32_t>(sizeof(ChunkEntry));
  const uint32_t first_chunk = round_up(table_end, chunk_bytes);
  table_ = layout.base + table;
  first_chunk_ = layout.base + first_chunk;
  chunk_limit_ = (layout.size - segment_page - first_chunk) / chunk_bytes;
  if (!segment_->grow(layout.base + table_end, reason)) return false;
  ChunkTable &found = head();
  if (found.magic == table_magic) {
    if (found.first_chunk == first_chunk_ && found.chunk_limit == chunk_limit_ && found.chunks_in_use <= chunk_limit_) {
      return true;
    }
    *reason = name + ": its chunk table is damaged";
    return false;
  }
  if (found.magic != 0) {
    *reason = name + ": something else stands where its chunk table should be";
    return false;
  }
  found.first_chunk = first_chunk_;
  found.chunk_limit = chunk_limit_;
  found.chunks_in_use = 0;
  // Release: a writer killed here leaves no table, or a whole one, to the next; partner: the load above, in program
  // order of one process or after the death of the other.
  std::atomic_ref<uint32_t>(found.magic).store(table_magic, std::memory_order_release);
  return true;
}

// Where the mark of a record in a chunk of many stands: 32 marks to a word, the words at the chunk's end.
uint32_t mark_address(uint32_t chunk_address, uint32_t records, uint32_t record) {
  return chunk_address + chunk_bytes - (records + 31) / 32 * 4 + record / 32 * 4;
}

bool SegmentArena::marked(const Type &type, uint32_t chunk, uint32_t record) const {
  if (type.per_chunk == 1) return (entry(chunk).position & entry_mark) != 0;
  const uint32_t word = mark_address(first_chunk_ + chunk * chunk_bytes, type.per_chunk, record);
  return ((*at<uint32_t>(word) >> (record % 32)) & 1) != 0;
}

// A plain store: only writers look at marks, one after the death of the other, and the release store that publishes a
// record keeps this one in front of it.
void SegmentArena::mark(const Type &type, uint32_t address, bool given_out) {
  const uint32_t chunk = (address - first_chunk_) / chunk_bytes;
  if (type.per_chunk == 1) {
    uint16_t &position = entry(chunk).position;
    position = static_cast<uint16_t>(given_out ? position | entry_mark : position & ~entry_mark);
    return;
  }
  const uint32_t record = (address - first_chunk_) % chunk_bytes / type.stride;
  uint32_t &word = *at<uint32_t>(mark_address(first_chunk_ + chunk * chunk_bytes, type.per_chunk, record));
  const uint32_t bit = 1u << (record % 32);
  word = given_out ? word | bit : word & ~bit;
}

// Notes for the chunks of an earlier writer: every marked record in them waits for adopt() or retire_unadopted().
void SegmentArena::read_chunks() {
  uint32_t unknown = 0;
  const uint32_t in_use = head().chunks_in_use;
  chunks_.reserve(in_use);
  while (chunks_.size() < in_use) {
    const ChunkEntry &first = entry(static_cast<uint32_t>(chunks_.size()));
    Chunk chunk;
    const bool known = first.type < types_.size() && types_[first.type].stride != 0 &&
                       first.stride == types_[first.type].stride && (first.position & ~entry_mark) == 0 &&
                       chunks_.size() + types_[first.type].chunks <= in_use;
    if (!known) {
      ++unknown;
      chunks_.push_back(std::move(chunk));
      continue;
    }
    Type &type = types_[first.type];
    const auto index = static_cast<uint32_t>(chunks_.size());
    chunk.type = first.type;
    chunk.states.assign(type.per_chunk, State::unadopted);
    for (uint32_t record = 0; record < type.per_chunk; ++record) {
      if (marked(type, index, record)) {
        ++type.left;
        continue;
      }
      chunk.states[record] = State::free;
      type.free.push_back(first_chunk_ + index * chunk_bytes + record * type.stride);
    }
    chunks_.push_back(std::move(chunk));
    chunks_.resize(chunks_.size() + type.chunks - 1);
  }
  if (unknown != 0) {
    log_line(LOG_WARNING, "%s: %u chunks of 64 KiB are of record types that this writer does not know; left alone",
             std::string(segment_->layout().name).c_str(), unknown);
  }
}

bool SegmentArena::begin(uint32_t first, std::span<const RecordTypeInfo> types, std::string *reason) {
  if (!add_types(types, reason) || !begin_table(first, reason)) return false;
  read_chunks();
  return true;
}

// A new chunk, or a run of chunks for one large record. The entries come first and are counted afterwards, so that a
// writer killed in between leaves a chunk without owner, not one without type.
bool SegmentArena::add_chunk(Type &type) {
  const auto next = static_cast<uint32_t>(chunks_.size());
  std::string reason;
  bool room = chunk_limit_ - next >= type.chunks;
  if (!room) {
    reason = std::string(segment_->layout().name) + ": its window of " + std::to_string(segment_->layout().size >> 20) +
             " MiB is full";
  }
  if (!room || !segment_->grow(first_chunk_ + (next + type.chunks) * chunk_bytes, &reason)) {
    if (!full_logged_) {
      log_line(LOG_ERR, "no memory for a record of type %s: %s", std::string(type.info.name).c_str(), reason.c_str());
    }
    full_logged_ = true;
    return false;
  }
  full_logged_ = false;
  for (uint32_t position = 0; position < type.chunks; ++position) {
    entry(next + position) = {
        .type = type.info.type, .position = static_cast<uint16_t>(position), .stride = type.stride};
  }
  // Release: entries before the count; the partner is the next writer's read_chunks(), after this one's death.
  std::atomic_ref<uint32_t>(head().chunks_in_use).store(next + type.chunks, std::memory_order_release);
  Chunk chunk;
  chunk.type = type.info.type;
  chunk.states.assign(type.per_chunk, State::unused);
  chunks_.push_back(std::move(chunk));
  chunks_.resize(chunks_.size() + type.chunks - 1);
  type.fresh_next = first_chunk_ + next * chunk_bytes;
  type.fresh_end = type.fresh_next + type.per_chunk * type.stride;
  return true;
}

// The state of the record at that address. Null: no record of that type begins there.
State *SegmentArena::state_of(RecordType type, const void *record) {
  const uint32_t address = address_of(record);
  if (reinterpret_cast<uintptr_t>(record) != address || address < first_chunk_) return nullptr;
  const uint32_t chunk = (address - first_chunk_) / chunk_bytes;
  if (chunk >= chunks_.size() || chunks_[chunk].type != type || type == 0) return nullptr;
  const uint32_t offset = (address - first_chunk_) % chunk_bytes;
  const uint32_t stride = types_[type].stride;
  if (offset % stride != 0 || offset / stride >= chunks_[chunk].states.size()) return nullptr;
  return &chunks_[chunk].states[offset / stride];
}

void zero(uint32_t address, uint32_t bytes) {
  auto *words = at<uint32_t>(address);
  // Relaxed: a walker without the lock may read a word meanwhile; nothing is published by it.
  for (uint32_t i = 0; i < bytes / 4; ++i) std::atomic_ref<uint32_t>(words[i]).store(0, std::memory_order_relaxed);
}

// A mistake of our own writer. Going on would hand one record out twice; the next writer starts clean instead.
[[noreturn]] void stop_on_misuse(const char *what, RecordType type) {
  log_line(LOG_CRIT, "arena: %s (type %u)", what, type);
  abort();
}

void *SegmentArena::allocate(RecordType number) {
  if (number >= types_.size() || types_[number].stride == 0) stop_on_misuse("an allocation of an unknown type", number);
  Type &type = types_[number];
  uint32_t address = 0;
  if (!type.free.empty()) {
    address = type.free.front();
    type.free.pop_front();
  } else {
    if (type.fresh_next == type.fresh_end && !add_chunk(type)) return nullptr;
    address = type.fresh_next;
    type.fresh_next += type.stride;
  }
  mark(type, address, true);
  zero(address, type.stride);
  auto *record = at<void>(address);
  *state_of(number, record) = State::live;
  ++type.live;
  return record;
}

void SegmentArena::put_in_retirement(Type &type, uint32_t address) {
  retired_.push_back({address, type.info.type});
  ++untagged_;
  ++type.retired;
  retired_bytes_ += type.stride;
}

void SegmentArena::retire(RecordType number, void *record) {
  State *const state = state_of(number, record);
  if (state == nullptr || *state != State::live) stop_on_misuse("a retired record that is not live", number);
  *state = State::retired;
  --types_[number].live;
  put_in_retirement(types_[number], address_of(record));
}

void SegmentArena::give_back(RecordType number, void *record) {
  State *const state = state_of(number, record);
  if (state == nullptr || *state != State::live) stop_on_misuse("a record given back that is not live", number);
  *state = State::free;
  mark(types_[number], address_of(record), false);
  --types_[number].live;
  types_[number].free.push_back(address_of(record));
}

bool SegmentArena::adopt(RecordType number, void *record) {
  State *const state = state_of(number, record);
  if (state == nullptr || *state != State::unadopted) return false;
  *state = State::live;
  --types_[number].left;
  ++types_[number].live;
  return true;
}

void SegmentArena::retire_unadopted() {
  for (uint32_t index = 0; index < chunks_.size(); ++index) {
    Chunk &chunk = chunks_[index];
    for (uint32_t record = 0; record < chunk.states.size(); ++record) {
      if (chunk.states[record] != State::unadopted) continue;
      chunk.states[record] = State::retired;
      Type &type = types_[chunk.type];
      --type.left;
      put_in_retirement(type, first_chunk_ + index * chunk_bytes + record * type.stride);
    }
  }
}

void SegmentArena::free_batch(const Batch &batch) {
  for (size_t i = 0; i < batch.records; ++i) {
    const Retired record = retired_.front();
    retired_.pop_front();
    Type &type = types_[record.type];
    *state_of(record.type, at<void>(record.address)) = State::free;
    mark(type, record.address, false);
    type.free.push_back(record.address);
    --type.retired;
    retired_bytes_ -= type.stride;
  }
}

void SegmentArena::overrule_holders(uint32_t epoch) {
  for (const EpochHolder &holder : epochs_.holders(domain_, epoch)) {
    log_line(LOG_WARNING,
             "%s: process %d (%.16s), thread %d, has been inside one query for so long that %llu bytes wait for it; "
             "going on without it",
             std::string(segment_->layout().name).c_str(), holder.pid, holder.command, holder.tid,
             static_cast<unsigned long long>(retired_bytes_));
    epochs_.overrule(holder);
  }
}

void SegmentArena::tick(std::chrono::steady_clock::time_point now) {
  if (untagged_ != 0) {
    batches_.push_back({epochs_.advance(domain_), now, untagged_});
    untagged_ = 0;
  }
  while (!batches_.empty() && now - batches_.front().since >= limits_.quarantine) {
    const Batch batch = batches_.front();
    if (!epochs_.passed(domain_, batch.epoch)) {
      if (retired_bytes_ <= limits_.retired_bytes_cap) return;
      overrule_holders(batch.epoch);
      if (!epochs_.passed(domain_, batch.epoch)) return;
    }
    batches_.pop_front();
    free_batch(batch);
  }
}

std::vector<RecordTypeUse> SegmentArena::use() const {
  std::vector<RecordTypeUse> answer;
  for (const Type &type : types_) {
    if (type.stride == 0) continue;
    const uint64_t fresh = (type.fresh_end - type.fresh_next) / type.stride;
    answer.push_back({type.info, type.live, type.retired, type.free.size() + fresh, type.left});
  }
  return answer;
}

}  // namespace

std::unique_ptr<Arena> Arena::open(std::shared_ptr<SegmentMap> segment, Epochs &epochs, Domain domain, uint32_t first,
                                   std::span<const RecordTypeInfo> types, ArenaLimits limits, std::string *reason) {
  auto arena = std::make_unique<SegmentArena>(std::move(segment), epochs, domain, limits);
  if (!arena->begin(first, types, reason)) return nullptr;
  return arena;
}

}  // namespace rsw
