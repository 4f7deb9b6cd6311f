#include "support/chunk_parser.h"

namespace wire {
namespace {

uint32_t BigEndian(const Bytes &bytes, size_t from, size_t width)
{
    uint32_t value = 0;
    for (size_t i = 0; i < width; ++i) {
        value = value << 8 | bytes.at(from + i);
    }
    return value;
}

[[noreturn]] void Refuse(const Message &message, const std::string &why)
{
    throw PeerError("chunk stream " + std::to_string(message.chunkStream) + ", message type " +
                    std::to_string(message.type) + ", header type " + std::to_string(message.headerType) +
                    ": " + why + "; so far " + ToHex(message.raw));
}

bool IsPingResponse(const Message &message)
{
    return message.type == 4 && message.payload.size() == 6 && message.payload[1] == 7;
}

} // namespace

Bytes ChunkParser::take(Message &message, size_t count)
{
    const Bytes bytes = socket_.receive(count);
    Append(message.raw, bytes);
    return bytes;
}

void ChunkParser::readField(Message &message, const Bytes &header)
{
    message.field = BigEndian(header, 0, 3);
    if (message.field == 0xFFFFFF) {
        message.extended = true;
        message.field = BigEndian(take(message, 4), 0, 4);
    }
}

// timestamp or delta:24  [length:24  type:8  [stream id:32, little-endian]]  [extended:32]
void ChunkParser::readHeader(Message &message, Shape &shape)
{
    static constexpr size_t kHeaderLength[4] = {11, 7, 3, 0};
    const uint8_t first = take(message, 1)[0];
    message.headerType = first >> 6;
    message.chunkStream = first & 0x3F;
    if (message.chunkStream < 2) {
        Refuse(message, "a long basic header");
    }
    const auto known = previous_.find(message.chunkStream);
    if (known != previous_.end()) {
        shape = known->second;
    } else if (message.headerType != 0) {
        Refuse(message, "nothing to inherit from");
    }
    const Bytes header = take(message, kHeaderLength[message.headerType]);
    if (message.headerType < 2) {
        shape.length = BigEndian(header, 3, 3);
        shape.type = header[6];
    }
    if (message.headerType == 0) {
        shape.stream = BigEndian({header[10], header[9], header[8], header[7]}, 0, 4);
    }
    message.type = shape.type;
    message.stream = shape.stream;
    if (message.headerType < 3) {
        readField(message, header);
        shape.delta = message.headerType == 0 ? 0 : message.field;
    }
    shape.timestamp = message.headerType == 0 ? message.field : shape.timestamp + shape.delta;
    message.timestamp = shape.timestamp;
}

void ChunkParser::readPayload(Message &message, uint32_t length)
{
    const uint8_t separator = static_cast<uint8_t>(0xC0 | message.chunkStream);
    do {
        if (message.chunks > 0 && take(message, 1)[0] != separator) {
            Refuse(message, "no separator in front of chunk " + std::to_string(message.chunks + 1));
        }
        const size_t piece = std::min<size_t>(chunkSize, length - message.payload.size());
        Append(message.payload, take(message, piece));
        ++message.chunks;
    } while (message.payload.size() < length);
}

// The server compares each message with the first one it sent on the chunk stream, not with the last. With an
// acknowledgement it begins the chunk stream anew.
void ChunkParser::checkHeaderType(const Message &message, const Shape &shape)
{
    if (message.type == 3) {
        references_.erase(message.chunkStream);
    }
    const auto found = references_.find(message.chunkStream);
    if (found == references_.end()) {
        if (message.headerType != 0) {
            Refuse(message, "the first message of a chunk stream needs a full header");
        }
        references_[message.chunkStream] = shape;
        return;
    }
    const Shape &reference = found->second;
    if (message.headerType == 0) {
        if (reference.stream == shape.stream && !IsPingResponse(message)) {
            Refuse(message, "a full header where a shorter one was due");
        }
        return;
    }
    const bool alike = reference.length == shape.length && reference.type == shape.type;
    if (alike != (message.headerType > 1)) {
        Refuse(message, alike ? "length and type need not be sent again" : "length or type have changed");
    }
    if (message.headerType == 2 && shape.delta == reference.delta) {
        Refuse(message, "the delta need not be sent again");
    }
}

Bytes ChunkParser::takeInto(Bytes &raw, size_t count)
{
    const Bytes bytes = socket_.receive(count);
    Append(raw, bytes);
    return bytes;
}

// fmt:2 id:6, with one byte more for id 0 and two, the low one first, for id 1 (RTMP 1.0, 5.3.1.1)
ChunkParser::Lane &ChunkParser::takeBasicHeader(Bytes &raw, int &form)
{
    const uint8_t first = takeInto(raw, 1)[0];
    form = first >> 6;
    uint32_t id = first & 0x3F;
    if (id < 2) {
        const Bytes more = takeInto(raw, id + 1);
        id = 64 + more[0] + (id == 1 ? more[1] * 256U : 0);
    }
    Lane &lane = lanes_[id];
    lane.message.chunkStream = id;
    return lane;
}

// RTMP 1.0, 5.3.1.2 and 5.3.1.3
void ChunkParser::beginMessage(Lane &lane, Bytes &raw, int form)
{
    static constexpr size_t kHeaderLength[4] = {11, 7, 3, 0};
    lane.message.headerType = form;
    if (form != 0 && !lane.known) {
        Refuse(lane.message, "nothing to inherit from");
    }
    const Bytes header = takeInto(raw, kHeaderLength[form]);
    if (form < 2) {
        lane.length = BigEndian(header, 3, 3);
        lane.type = header[6];
    }
    if (form == 0) {
        lane.stream = BigEndian({header[10], header[9], header[8], header[7]}, 0, 4);
        lane.known = true;
    }
    if (form < 3) {
        lane.field = BigEndian(header, 0, 3);
        lane.extended = lane.field == 0xFFFFFF;
        lane.field = lane.extended ? BigEndian(takeInto(raw, 4), 0, 4) : lane.field;
        lane.delta = lane.field; // also a timestamp, for a type 3 header behind it
    } else {
        takeRepeatedTime(lane, raw);
    }
    lane.timestamp = form == 0 ? lane.field : lane.timestamp + lane.delta;
    lane.open = true;
}

void ChunkParser::takeRepeatedTime(Lane &lane, Bytes &raw)
{
    if (lane.extended && BigEndian(takeInto(raw, 4), 0, 4) != lane.field) {
        Refuse(lane.message, "a type 3 header repeats another time than the message has");
    }
}

Message ChunkParser::nextStandard()
{
    for (;;) {
        Bytes raw;
        int form = 0;
        Lane &lane = takeBasicHeader(raw, form);
        if (!lane.open) {
            beginMessage(lane, raw, form);
        } else if (form != 3) {
            Refuse(lane.message, "a message header in the middle of a message");
        } else {
            takeRepeatedTime(lane, raw);
        }
        Message &message = lane.message;
        message.type = lane.type;
        message.stream = lane.stream;
        const size_t piece = std::min<size_t>(chunkSize, lane.length - message.payload.size());
        Append(message.payload, takeInto(raw, piece));
        Append(message.raw, raw);
        ++message.chunks;
        if (message.payload.size() < lane.length) {
            continue;
        }
        message.field = message.headerType == 3 ? 0 : lane.field;
        message.extended = message.headerType != 3 && lane.extended;
        message.timestamp = lane.timestamp;
        lane.open = false;
        const Message whole = std::move(message);
        message = {};
        if (whole.type == 1) {
            chunkSize = BigEndian(whole.payload, 0, 4);
        }
        return whole;
    }
}

Message ChunkParser::next()
{
    if (standard) {
        return nextStandard();
    }
    Message message;
    Shape shape;
    readHeader(message, shape);
    readPayload(message, shape.length);
    checkHeaderType(message, shape);
    previous_[message.chunkStream] = shape;
    if (message.type == 1) {
        chunkSize = BigEndian(message.payload, 0, 4);
    }
    return message;
}

} // namespace wire
