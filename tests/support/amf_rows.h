// AMF0 values side by side with their bytes, worked out by hand: what readers must find, what writers must
// produce, and where a fuzzer starts from.
#pragma once

#include "rtmpcast/publish.h"
#include "support/bytes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct AmfRow {
    const char *sentence;
    const char *picture; // of the bytes
    const char *values;  // what a reader of unnamed values finds, as Describe puts it
    // Besides 0: the lengths at which the bytes, cut there, are still whole values.
    std::vector<size_t> wholeCuts;
    // Makes the values with the builders; null where no builder makes these bytes.
    void (*build)(AmfObject *into);
};

const std::vector<AmfRow> &AmfRows();

// What no reader takes: each fails at the sentence's reason.
struct RefusedAmfRow {
    const char *sentence;
    const char *picture;
    std::vector<std::string> lines; // the log transcript
};

const std::vector<RefusedAmfRow> &RefusedAmfRows();

// Describe puts a list into words: 1.5, "text", null, {name=value ...}; booleans as "stored 0".
std::string Describe(const AmfObject &list);

// DecodedAmf decodes from a heap block that ends where the bytes end, and frees the list when it goes.
struct DecodedAmf {
    DecodedAmf(RtmpServer *server, const Bytes &bytes, size_t length, uint8_t noNames = 1);
    DecodedAmf(const DecodedAmf &) = delete;
    ~DecodedAmf();
    std::unique_ptr<uint8_t[]> input;
    AmfObject list = {};
    int32_t consumed;
};
