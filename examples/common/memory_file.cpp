#include "memory_file.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/mman.h>
#include <unistd.h>

MemoryFile::MemoryFile(size_t capacity) : capacity_(capacity)
{
    descriptor_ = memfd_create("frames", MFD_CLOEXEC);
    if (descriptor_ < 0 || ftruncate(descriptor_, static_cast<off_t>(capacity)) != 0) {
        const std::error_code why(errno, std::generic_category());
        close(descriptor_);
        throw std::system_error(why, "memory file for frames");
    }
    void *map = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0);
    if (map == MAP_FAILED) {
        const std::error_code why(errno, std::generic_category());
        close(descriptor_);
        throw std::system_error(why, "mapping of the memory file");
    }
    map_ = static_cast<uint8_t *>(map);
}

MemoryFile::~MemoryFile()
{
    munmap(map_, capacity_);
    close(descriptor_);
}

const uint8_t *MemoryFile::place(std::span<const uint8_t> frame)
{
    if (frame.size() > capacity_ / 4) {
        throw std::length_error("a frame of " + std::to_string(frame.size()) +
                                " bytes is too large for the memory file (--zero-copy-mib)");
    }
    if (frame.size() > capacity_ - at_) {
        at_ = 0;
    }
    uint8_t *where = map_ + at_;
    memcpy(where, frame.data(), frame.size());
    at_ += frame.size();
    return where;
}
