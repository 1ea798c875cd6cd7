#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/SharedTable.h"

namespace platform {

/// Creates the table in a POSIX shared-memory segment, in place of one that a dead writer left
/// behind. `name` begins with '/' and holds no other. Mode 0644: local users may read. In
/// `lockDir`, best a directory that only this user may write, stands "<name>.lock" while the writer
/// lives. Destroying the table marks it closed and unlinks both. Throws ErrnoException (EBUSY: a
/// living process, its pid is in the text, writes a table of this name; EEXIST: the name is taken
/// by something that is no table; EACCES, EPERM: by another user, whom the text names; EINVAL: name
/// or lengths; ENOSPC: all memory is taken at creation).
///
/// Root may truncate or remove the segment while it is in use. The process lives on (see
/// ShmMapping.h), and counts reach nobody until `shmTableRestore`.
Ptr<SharedTable> shmTableFactory(const std::string& name, size_t keyLen, size_t valueLen,
                                 size_t capacity, const std::string& lockDir = "/dev/shm");

/// Makes the segment and the lock of a table of `shmTableFactory` again where somebody removed,
/// replaced or truncated them, with all records; after truncation without. Returns what was wrong,
/// empty when nothing was. Costs two calls of the kernel then. Throws as the factory.
std::string shmTableRestore(SharedTable& table);

/// A reader of such a table, in any process: maps it read-only and takes no lock. It finds a newer
/// table of the same name by itself at the next call. It believes no length in the segment, and
/// survives that its owner truncates it while a call is under way (see ShmMapping.h).
class ShmTableReader {
 public:
  struct Record {
    std::vector<std::byte> key;
    std::vector<std::byte> value;
  };
  struct Snapshot {
    enum class State {
      live,    ///< the writer lives
      dead,    ///< the writer died without closing the table: what it last wrote
      closed,  ///< the writer closed the table, or it is just starting
      absent,  ///< there is no table of this name
      foreign  ///< something else has the name, or another layout version, key or value length; or
               ///< it was truncated
    };
    State state = State::absent;
    int writerPid = 0;
    double startTime = 0;     ///< UTC seconds at which the writer created the table
    uint64_t generation = 0;  ///< differs between two tables of the same name
    std::vector<Record> records;
    size_t unreadable = 0;  ///< records under change at every try; a dead writer leaves at most one
    uint64_t retries = 0;   ///< reads repeated because the writer was at the record
  };

  virtual ~ShmTableReader() = default;
  /// All records, each whole. Bounded work: a record under change is tried a bounded number of
  /// times. Never throws for what the writer did; ErrnoException only when the segment may not be
  /// opened (EACCES).
  virtual Snapshot snapshot() = 0;
  /// One record by key; false when absent or unreadable.
  virtual bool get(SharedTable::Octets key, std::vector<std::byte>& value) = 0;
};
std::unique_ptr<ShmTableReader> shmTableReader(const std::string& name, size_t keyLen,
                                               size_t valueLen);

}  // namespace platform
