// What services answer a publisher, good and bad. The first two bytes are those of
// targets/service_answers.cpp.
#include "seed_folder.h"
#include "support/wire_replies.h"

using namespace amf0;
using namespace wire;

namespace {

constexpr uint8_t kWithSender = 3 << 1;

// What the target itself has said in front.
enum class Answered { Nothing, Handshake, Connect, CreateStream, Publish, StepByStep };

class AnswerSeeds {
  public:
    explicit AnswerSeeds(SeedFolder *folder) : folder_(folder) {}

    // The roads take turns, and so does what is beside them.
    void write(const std::string &name, Answered answered, const Bytes &bytes)
    {
        const uint8_t first =
            static_cast<uint8_t>((turn_ & 1) | kWithSender | static_cast<uint8_t>(answered) << 3);
        folder_->write(name, Bytes{first, static_cast<uint8_t>(0x08 | (turn_ >> 1 & 7))} + bytes);
        turn_++;
    }
    void writeBoth(const std::string &name, Answered answered, const Bytes &bytes)
    {
        write(name + "_exact", answered, bytes);
        write(name + "_steady", answered, bytes);
    }

  private:
    SeedFolder *folder_;
    uint32_t turn_ = 0;
};

Bytes Answer(const Bytes &payload, uint32_t stream = 0)
{
    return Chunks({.payload = payload, .stream = stream});
}

Bytes ResultOf(double transaction, const Value &value)
{
    return Answer(Values({String("_result"), Number(transaction), Null(), value}).bytes);
}

Bytes ErrorTo(double transaction, const std::string &text)
{
    return Answer(Values({String("_error"), Number(transaction), Null(),
                          Object({{"level", String("error")},
                                  {"code", String("NetConnection.Connect.Rejected")},
                                  {"description", String(text)}})})
                      .bytes);
}

Bytes StatusOf(const std::string &level, const std::string &text)
{
    return Answer(Status(level, "NetStream.Publish.Start", text), 1);
}

Bytes ServiceControl(uint8_t type, const std::string &picture)
{
    return Chunks({.payload = Hex(picture), .type = type, .chunkStream = 2});
}

} // namespace

void Seeds_service_answers(SeedFolder &folder)
{
    AnswerSeeds seeds(&folder);
    const Bytes shake = Bytes{3} + Bytes(3072, 1);
    const Bytes windows =
        ServiceControl(5, "002625A0") + ServiceControl(6, "002625A0 02") + ServiceControl(1, "00001000");
    const Bytes connected =
        windows + ResultOf(1, Object({{"code", String("NetConnection.Connect.Success")}}));
    const Bytes published = StatusOf("status", "live");
    const Bytes all = connected + ErrorTo(2, "no releaseStream") +
                      Answer(Values({String("onFCPublish"), Number(0), Null()}).bytes) +
                      ResultOf(4, Number(1)) + ServiceControl(4, "0000 00000001") + published +
                      ServiceControl(4, "0006 01020304") + ServiceControl(3, "00001000");
    seeds.writeBoth("whole", Answered::Nothing, shake + all);
    for (const uint8_t road : {0, 1}) {
        folder.write(road == 0 ? "tls_exact" : "tls_steady",
                     Bytes{static_cast<uint8_t>(0x80 | kWithSender | road), 0x0B} + shake + all);
    }
    seeds.writeBoth("behind_handshake", Answered::Handshake, all);
    seeds.writeBoth("step_by_step", Answered::StepByStep, all + ResultOf(5, Null()) + ResultOf(6, Null()));
    for (const size_t length : {0U, 1023U, 1024U, 5000U}) {
        const std::string text(length, 'e');
        seeds.writeBoth("refused_with_" + std::to_string(length), Answered::Handshake, ErrorTo(1, text));
        seeds.writeBoth("status_of_" + std::to_string(length), Answered::Publish, StatusOf("error", text));
    }
    int number = 0;
    for (const double id : {0.0, -1.0, 1.5, 4294967295.0, 4294967296.0, 1e300, 0.0 / 0.0}) {
        seeds.writeBoth("stream_id_" + std::to_string(number++), Answered::Connect, ResultOf(4, Number(id)));
    }
    seeds.writeBoth("stream_id_text", Answered::Connect, ResultOf(4, String("1")));
    seeds.writeBoth("other_status", Answered::CreateStream, StatusOf("warning", "later") + published);
    for (const char *name : {"connect", "play", "pause", "deleteStream", "createStream", "publish", "seek",
                             "close", "onBWDone", "_checkbw", "setChallenge", "onClientLogin"}) {
        seeds.writeBoth(
            std::string("asks_for_") + name, Answered::Publish,
            Answer(Values({String(name), Number(2), Null(), String("stream"), String("live")}).bytes));
    }
    for (const char *name : {"ping", "recordStarted", "recordError", "recordReady", "recordSaved",
                             "recordTimerWarning", "recordLimitExceeded", "onFCPublish", "unknown"}) {
        seeds.writeBoth(std::string("says_") + name, Answered::Publish,
                        Answer(Values({String(name), Number(0), Null()}).bytes));
    }
    seeds.writeBoth("statistics", Answered::Publish,
                    Answer(Values({String("moduleInfo"), Number(0), Null(),
                                   Object({{"viewers", Number(7)},
                                           {"allViewers", Number(1e300)},
                                           {"name", String("text")},
                                           {"flag", Boolean(true)},
                                           {"inner", Object({{"viewers", Number(-1)}})}})})
                               .bytes));
    seeds.writeBoth(
        "challenge", Answered::Handshake,
        Answer(Values({String("setChallenge"), Number(0), Null(), Number(2147483648.0), String("challenge")})
                   .bytes) +
            Answer(Values({String("onClientLogin"), Number(0), Null(),
                           Object({{"level", String("error")}, {"code", String("login")}})})
                       .bytes));
    seeds.writeBoth("media", Answered::Publish,
                    Chunks({.payload = Bytes(200, 0x17), .type = 9, .chunkStream = 6, .stream = 1}));
    seeds.writeBoth("pings", Answered::Publish, Repeated(ServiceControl(4, "0006 00000007"), 30));
    seeds.writeBoth("small_window", Answered::Publish,
                    ServiceControl(5, "00000001") + Repeated(ServiceControl(4, "0006 00000007"), 9));
    seeds.writeBoth("chunk_size_0", Answered::Publish, ServiceControl(1, "00000000") + published);
}
