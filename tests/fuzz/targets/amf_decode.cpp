// AMF0 bodies: decoded, compared with a second reader, encoded again, compared with a second writer, decoded
// once more, freed. Bodies of the library's own making are decoded too, through the builders.
//
//   choices:8  [repetitions:24  head:8  unit:8]  body
//
// Where the choices say so, the body is its first `head` bytes, the next `unit` bytes many times over, and
// the rest: nesting and lists of any length from a few bytes.
//
// max_len: 2048
#include "amf/decode.h"
#include "amf/encode.h"
#include "amf/object.h"
#include "support/amf_model.h"

namespace {

using amf_model::Value;

enum Choice : uint8_t { NAMED = 1, FREED_BY_HOST = 2, REPEATED = 0x80 };

constexpr size_t kLongestFreed = 65534;   // by FreeAmfObject
constexpr size_t kLongestCompared = 9000; // longer bodies are only read and freed
constexpr size_t kLongestWritten = 1000;  // values

// As many as are asked for only about the numbers where something changes: what is long is slow.
size_t LongestBody(size_t times)
{
    if (times == kLongestFreed || times == kLongestFreed + 1) {
        return kLongestFreed + 6;
    }
    return times >= 1000 && times <= 1030 ? kLongestCompared : 1000;
}

FuzzBytes BodyOf(FuzzInput *in, uint8_t choices)
{
    if ((choices & REPEATED) == 0) {
        return Rest(in);
    }
    const size_t times = in->number(3);
    const size_t longest = LongestBody(times);
    FuzzBytes body = Take(in, in->byte());
    const FuzzBytes unit = Take(in, in->byte());
    for (size_t i = 0; i < times && body.size() + unit.size() <= longest && !unit.empty(); i++) {
        body.insert(body.end(), unit.begin(), unit.end());
    }
    const FuzzBytes tail = Rest(in);
    body.insert(body.end(), tail.begin(), tail.end());
    return body;
}

struct DecodedBody {
    DecodedBody(RtmpServer *server, const FuzzBytes &bytes, bool named) : server_(server), input(bytes)
    {
        consumed = DecodeAmfBuffer(server, &list, input.data(), input.size(), named ? 0 : 1);
    }
    DecodedBody(const DecodedBody &) = delete;
    ~DecodedBody()
    {
        FUZZ_CHECK(
            (isFreedByHost ? FreeAmfObject(server_, &list, 0) : FreeDecodedAmfObject(server_, &list)) == 0);
        FUZZ_CHECK(list.first == nullptr);
    }

  private:
    RtmpServer *server_;

  public:
    ExactCopy input;
    AmfObject list = {};
    int32_t consumed;
    bool isFreedByHost = false;
};

struct ModelBody {
    ModelBody(const FuzzBytes &bytes, bool named) : reader(bytes)
    {
        isWhole = reader.readList(named, &values);
    }
    amf_model::Reader reader;
    std::vector<Value> values;
    bool isWhole;
};

void CheckRead(const DecodedBody &body, const ModelBody &model, size_t lines)
{
    FUZZ_CHECK(body.consumed == (model.isWhole ? static_cast<int32_t>(model.reader.consumed()) : -1));
    FUZZ_CHECK(lines == model.reader.lines);
    amf_model::CheckSame(body.list, model.values, body.input);
}

// Positions, and the earliest of a name; names of nested lists are looked up by the command target.
void CheckLookUps(RtmpServer *server, DecodedBody *body, const std::vector<Value> &values)
{
    const int32_t count = static_cast<int32_t>(values.size());
    AmfObject *list = &body->list;
    FUZZ_CHECK(GetAmfProp(server, list, nullptr, count) == nullptr);
    FUZZ_CHECK(GetAmfProp(server, list, nullptr, count + 1) == list->first);
    FUZZ_CHECK(GetAmfProp(server, list, nullptr, INT32_MAX) == list->first);
    if (count == 0) {
        return;
    }
    FUZZ_CHECK(GetAmfProp(server, list, nullptr, count - 1) == list->last);
    AmfString name = {};
    GetAmfPropName(server, list->last, &name);
    size_t earliest = 0;
    while (values[earliest].name != values.back().name) {
        earliest++;
    }
    FUZZ_CHECK(GetAmfProp(server, list, &name, -1) ==
               GetAmfProp(server, list, nullptr, static_cast<int32_t>(earliest)));
}

void Invert(std::vector<Value> *values)
{
    for (Value &value : *values) {
        value.name.clear(); // not written at the top
        value.boolean = value.type == AMF_BOOLEAN && value.boolean == 0 ? 1 : 0;
    }
}

bool AllSurvive(const std::vector<Value> &values)
{
    for (const Value &value : values) {
        if (!amf_model::SurvivesEncoding(value, false)) {
            return false;
        }
    }
    return true;
}

void CheckEncodedAgain(RtmpServer *server, CountingLog *log, const FuzzBytes &bytes,
                       const std::vector<Value> &values)
{
    const ModelBody model(bytes, false);
    const DecodedBody again(server, bytes, false);
    CheckRead(again, model, log->takeCount());
    if (AllSurvive(values)) {
        std::vector<Value> inverted = values;
        Invert(&inverted);
        FUZZ_CHECK(again.consumed == static_cast<int32_t>(bytes.size()));
        amf_model::CheckSame(again.list, inverted, again.input);
    }
}

FuzzBytes EncodeAll(RtmpServer *server, AmfObject *list, size_t *counted)
{
    const uint32_t size = GetAmfEncBuffSize(server, list);
    uint8_t *payload = EncodeAmfBuffer(server, static_cast<int32_t>(size), list);
    FUZZ_CHECK(payload != nullptr);
    FuzzBytes bytes(payload, payload + size);
    free(payload);
    *counted = size;
    return bytes;
}

void CheckWriting(RtmpServer *server, CountingLog *log, DecodedBody *body, const std::vector<Value> &values)
{
    size_t counted = 0;
    const FuzzBytes bytes = EncodeAll(server, &body->list, &counted);
    const amf_model::Encoded expected = amf_model::Encode(values);
    FUZZ_CHECK(log->takeCount() == expected.lines);
    FUZZ_CHECK(counted == expected.counted);
    FUZZ_CHECK(bytes == expected.bytes);
    CheckEncodedAgain(server, log, bytes, values);
    // A buffer that is too small gets what fits, and nothing behind its end is written.
    free(EncodeAmfBuffer(server, static_cast<int32_t>(counted / 2), &body->list));
    (void)log->takeCount();
}

// The same values through the builders, which own their texts: the bytes are the same, and all of it is
// freed.
void CheckBuilders(RtmpServer *server, CountingLog *log, const std::vector<Value> &values)
{
    AmfObject built = {};
    std::vector<Value> expected;
    for (const Value &value : values) {
        const std::string name = value.name.c_str(); // up to a zero byte, as a text of C
        const std::string text = value.text.c_str();
        double number = 0;
        memcpy(&number, &value.bits, sizeof number);
        Value copy = value;
        copy.name = name;
        copy.text = text;
        if (value.type == AMF_NUMBER) {
            FUZZ_CHECK(WriteAmfNumber(server, &built, name.c_str(), number) == 0);
        } else if (value.type == AMF_BOOLEAN) {
            FUZZ_CHECK(WriteAmfBoolean(server, &built, name.c_str(), value.boolean) == 0);
        } else if (value.type == AMF_STRING) {
            FUZZ_CHECK(WriteAmfString(server, &built, name.c_str(), text.c_str()) == 0);
        } else {
            FUZZ_CHECK(WriteAmfNull(server, &built) == 0);
            copy = Value();
            copy.type = AMF_NULL;
        }
        expected.push_back(std::move(copy));
    }
    Value object;
    object.type = AMF_OBJECT;
    object.members = expected;
    AmfObject outer = {};
    FUZZ_CHECK(WriteAmfObject(server, &outer, &built) == 0);
    size_t counted = 0;
    FUZZ_CHECK(EncodeAll(server, &outer, &counted) == amf_model::Encode({object}).bytes);
    FUZZ_CHECK(log->takeCount() == 0);
    FUZZ_CHECK(FreeAmfObject(server, &outer, 1) == 0);
}

void CheckLengthsBeyondRange(RtmpServer *server)
{
    const uint8_t one = AMF_NULL;
    for (const uint32_t length : {0x80000000U, 0xFFFFFFFFU}) {
        AmfObject list = {};
        FUZZ_CHECK(DecodeAmfBuffer(server, &list, &one, length, 1) == 0 && list.first == nullptr);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    CountingLog log;
    RtmpServer server = {};
    server.Logger = log.get();
    FuzzInput in(data, size);
    const uint8_t choices = in.byte();
    const FuzzBytes bytes = BodyOf(&in, choices);
    const bool named = (choices & NAMED) != 0;

    DecodedBody body(&server, bytes, named);
    // A value takes at least a byte: no list is longer.
    body.isFreedByHost = (choices & FREED_BY_HOST) != 0 && bytes.size() <= kLongestFreed;
    if (bytes.size() > kLongestCompared) {
        return 0;
    }
    const ModelBody model(bytes, named);
    CheckRead(body, model, log.takeCount());
    CheckLookUps(&server, &body, model.values);
    if (model.values.size() <= kLongestWritten) {
        CheckWriting(&server, &log, &body, model.values);
        CheckBuilders(&server, &log, model.values);
    }
    CheckLengthsBeyondRange(&server);
    return 0;
}
