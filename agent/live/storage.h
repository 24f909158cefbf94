// Where the history of the live agent is kept. The service appends records and goes on; it gives
// the answers that depend on them once they are durable (Service::durableIs).
//
// Activity thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agent/live/record.h"

namespace vnagent {

// The history cannot be read; the text is for the operator.
class StorageError : public std::runtime_error {
 public:
  explicit StorageError(const std::string& text) : std::runtime_error(text) {}
};

class Storage {
 public:
  virtual ~Storage() = default;

  // Appends records that become durable together, or not at all; returns at once. Records become
  // durable in the order of their sequence; those of several calls may become so together. After a
  // failure (Service::storageFailed) sequences go on after the last durable one; what is appended
  // before the service hears of it is dropped too.
  virtual void append(std::vector<std::shared_ptr<const Record>> records) = 0;
  void append(std::shared_ptr<const Record> record) { append(std::vector{std::move(record)}); }

  // Reads durable records of revisions first..last in ascending order of sequence; stops
  // when `take` returns false. The service asks for what is too old or too large for its memory.
  // Throws StorageError when the disk cannot be read.
  virtual void read(uint64_t first, uint64_t last,
                    const std::function<bool(const Record&)>& take) const = 0;

  // Keeps a snapshot, of a record that is durable; returns at once. Where it cannot be written, a
  // later one will.
  virtual void snapshot(Snapshot snapshot) = 0;
};

}  // namespace vnagent
