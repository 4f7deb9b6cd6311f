// A memory file for frames that go out with sendfile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/*
 * Frames lie one behind the other, and from the start again at the end. Sockets and queues refer to the
 * file's pages until the players have acknowledged them, so the file must hold more than all of them do:
 * what is overwritten too early reaches players changed.
 */
class MemoryFile {
  public:
    explicit MemoryFile(size_t capacity); // throws std::system_error
    ~MemoryFile();
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    // Where the copy lies, inside the mapping. Throws std::length_error for more than a quarter of the file.
    const uint8_t *place(std::span<const uint8_t> frame);

    int descriptor() const
    {
        return descriptor_;
    }

    // The address at which offset 0 of the file is mapped.
    uint64_t base() const
    {
        return reinterpret_cast<uintptr_t>(map_);
    }

  private:
    size_t capacity_;
    int descriptor_ = -1;
    uint8_t *map_ = nullptr;
    size_t at_ = 0;
};
