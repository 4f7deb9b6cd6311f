#include "support/chunk_mutator.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t most);

namespace {

using CutChunk = std::vector<uint8_t>;

// Where chunks begin and end, by RTMP 1.0 and as far as it can be told; what is cut short is a chunk, too.
class ChunkCutter {
  public:
    ChunkCutter(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    std::vector<CutChunk> all()
    {
        std::vector<CutChunk> chunks;
        while (at_ < size_) {
            const size_t begin = at_;
            cutOne();
            chunks.emplace_back(data_ + begin, data_ + at_);
        }
        return chunks;
    }

  private:
    uint32_t number(size_t from, size_t bytes) const
    {
        uint32_t value = 0;
        for (size_t i = from; i < from + bytes && i < size_; i++) {
            value = value << 8 | data_[i];
        }
        return value;
    }
    void pass(size_t count)
    {
        at_ = std::min(size_, at_ + count);
    }

    void cutOne()
    {
        static const size_t lengths[] = {11, 7, 3, 0};
        const uint32_t type = data_[at_] >> 6;
        const uint32_t id = data_[at_] & 63;
        pass(id == 0 ? 2 : id == 1 ? 3 : 1);
        const size_t header = at_;
        pass(lengths[type] + (type < 3 && number(header, 3) == 0xFFFFFF ? 4 : 0));
        uint32_t &left = left_[id];
        if (type < 2) {
            length_[id] = number(header + 3, 3);
        }
        left = left == 0 || type < 2 ? length_[id] : left;
        const uint32_t here = std::min(left, chunkSize_);
        if (type == 0 && here == 4 && number(header + 6, 1) == 1) {
            chunkSize_ = std::max(1U, number(at_, 4));
        }
        left -= here;
        pass(here);
    }

    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
    uint32_t chunkSize_ = 128;
    std::map<uint32_t, uint32_t> length_, left_;
};

class ChunkMutation {
  public:
    ChunkMutation(std::vector<CutChunk> chunks, unsigned seed) : chunks_(std::move(chunks)), random_(seed) {}

    std::vector<CutChunk> made()
    {
        for (uint32_t rounds = 1 + below(3); rounds > 0 && !chunks_.empty(); rounds--) {
            changeOne();
        }
        return chunks_;
    }

  private:
    uint32_t below(size_t limit)
    {
        return static_cast<uint32_t>(random_() % limit);
    }
    ptrdiff_t any()
    {
        return below(chunks_.size());
    }

    void changeOne()
    {
        CutChunk &chunk = chunks_[any()];
        switch (below(8)) {
        case 0:
            chunks_.insert(chunks_.begin() + any(), CutChunk(chunk));
            break;
        case 1:
            chunks_.erase(chunks_.begin() + any());
            break;
        case 2:
            std::swap(chunks_[any()], chunks_[any()]);
            break;
        case 3:
            changeHeader(chunk);
            break;
        case 4:
            changeLength(chunk);
            break;
        case 5:
            chunks_.insert(chunks_.begin() + any(), control());
            break;
        case 6:
            chunk.resize(below(chunk.size() + 1));
            break;
        default:
            std::rotate(chunks_.begin(), chunks_.begin() + any(), chunks_.end());
        }
    }

    // Another chunk stream, type of header, message type or timestamp.
    void changeHeader(CutChunk &chunk)
    {
        static const uint8_t ids[] = {0, 1, 2, 3, 5, 8, 19, 63};
        if (chunk.empty()) {
            return;
        }
        switch (below(4)) {
        case 0:
            chunk[0] = static_cast<uint8_t>((chunk[0] & 0xC0) | ids[below(8)]);
            break;
        case 1:
            chunk[0] = static_cast<uint8_t>((chunk[0] & 0x3F) | below(4) << 6);
            break;
        case 2:
            setAt(chunk, 7, static_cast<uint8_t>(below(24)));
            break;
        default:
            for (size_t i = 1; i < 4; i++) {
                setAt(chunk, i, below(2) == 0 ? 0xFF : static_cast<uint8_t>(random_()));
            }
        }
    }

    // A message length around what the chunk holds, or around the sizes of chunks, or as long as can be.
    void changeLength(CutChunk &chunk)
    {
        static const uint32_t lengths[] = {0, 1, 127, 128, 129, 256, 257, 4096, 0xFFFFFF};
        const uint32_t own = static_cast<uint32_t>(chunk.size());
        const uint32_t length = below(3) == 0 ? own + below(5) - 2 : lengths[below(9)];
        setAt(chunk, 4, static_cast<uint8_t>(length >> 16));
        setAt(chunk, 5, static_cast<uint8_t>(length >> 8));
        setAt(chunk, 6, static_cast<uint8_t>(length));
    }

    // Set Chunk Size, Abort, Acknowledgement, an event, Window Size, Set Peer Bandwidth.
    CutChunk control()
    {
        static const uint32_t values[] = {0, 1, 2, 3, 127, 128, 65536, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
        const uint8_t type = static_cast<uint8_t>(1 + below(6));
        const uint32_t value = values[below(10)];
        const uint8_t event = static_cast<uint8_t>(below(8));
        CutChunk chunk = {2,    0, 0, 0, 0, 0, static_cast<uint8_t>(type == 4 ? 6 : 4 + type / 6),
                          type, 0, 0, 0, 0};
        if (type == 4) {
            chunk.insert(chunk.end(), {0, event});
        }
        for (const int shift : {24, 16, 8, 0}) {
            chunk.push_back(static_cast<uint8_t>(value >> shift));
        }
        if (type == 6) {
            chunk.push_back(static_cast<uint8_t>(below(4)));
        }
        return chunk;
    }

    static void setAt(CutChunk &chunk, size_t at, uint8_t value)
    {
        if (at < chunk.size()) {
            chunk[at] = value;
        }
    }

    std::vector<CutChunk> chunks_;
    std::minstd_rand random_;
};

} // namespace

size_t MutateChunks(uint8_t *data, size_t size, size_t most, size_t head, unsigned seed)
{
    if (size <= head || seed % 2 == 0) {
        return LLVMFuzzerMutate(data, size, most);
    }
    ChunkMutation mutation(ChunkCutter(data + head, size - head).all(), seed / 2);
    size_t at = head;
    for (const CutChunk &chunk : mutation.made()) {
        const size_t count = std::min(chunk.size(), most - at);
        std::copy_n(chunk.begin(), count, data + at);
        at += count;
    }
    return at;
}
