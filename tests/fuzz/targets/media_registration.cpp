// Registration of media with whatever configuration a host may have, several times over, and frames behind
// it: the bodies that players are sent against the models, and every byte that one player gets for the
// frames.
//
//   choices:8  chunk size:8 [32]  registrations:8  { registration }  { frame }
//
// max_len: 2048
// dictionary: parameter_sets
#include "delivery/write/key_frame.h"
#include "delivery/write/socket_writer.h"
#include "media/access_unit.h"
#include "message/generate.h"
#include "message/send_list.h"
#include "rtmpcast/media.h"
#include "support/amf_model.h"
#include "support/chunk_model.h"
#include "support/h264_model.h"
#include "support/session_rig.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using amf_model::Value;

enum MediaChoice : uint8_t { DESCRIPTION = 1, TODAYS_PLAYER = 2, STARTS_ANEW = 4 };

constexpr size_t kMostFrames = 40;
constexpr size_t kLongestFrame = 4000;
constexpr uint32_t kVideoType = 9;
constexpr uint32_t kAudioType = 8;

uint32_t ChunkSizeOf(FuzzInput *in)
{
    constexpr uint32_t sizes[] = {128, 1, 2, 5, 127, 129, 4096, 65536, 0, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const uint8_t choice = in->byte();
    return choice < sizeof sizes / sizeof sizes[0] ? sizes[choice] : in->number(choice < 128 ? 1 : 4);
}

// --------------------------------------------------------------------------------------------------
// registration

// What a host tells, in memory of exactly its size.
struct Told {
    enum Choice : uint8_t {
        VIDEO = 1,
        AUDIO = 2,
        WITHOUT_LENGTH = 4,
        WITHOUT_DATA = 8,
        ODD_CODECS = 16,
        RAW = 32,
        REAL = 64
    };

    explicit Told(FuzzInput *in)
    {
        choices = in->byte();
        const bool isOdd = (choices & ODD_CODECS) != 0;
        video.codecId = isOdd ? in->byte() : 7;
        video.bitrate = in->number(4);
        audio.codecId = isOdd ? in->byte() : 10;
        audioBytes = Take(in, in->byte() & 7);
        videoBytes = configuration(in);
        videoCopy = std::make_unique<ExactCopy>(videoBytes);
        audioCopy = std::make_unique<ExactCopy>(audioBytes);
        const bool hasData = (choices & WITHOUT_DATA) == 0;
        constexpr int32_t oddLengths[] = {0, -1, INT32_MIN};
        const int32_t odd = oddLengths[video.bitrate % 3];
        const bool hasLength = (choices & WITHOUT_LENGTH) == 0;
        video.configData = hasData ? videoCopy->data() : nullptr;
        audio.configData = hasData ? audioCopy->data() : nullptr;
        video.configLen = hasLength ? static_cast<int32_t>(videoCopy->size()) : odd;
        audio.configLen = hasLength ? static_cast<int32_t>(audioCopy->size()) : odd;
    }
    // An input that tells neither is kept rare: that is logged where no logger is known, on the standard
    // output.
    bool hasVideo() const
    {
        return (choices & VIDEO) != 0 || ((choices & AUDIO) == 0 && choices != 0);
    }
    bool hasAudio() const
    {
        return (choices & AUDIO) != 0;
    }

    uint8_t choices;
    VideoMediaInfo video = {};
    AudioMediaInfo audio = {};
    FuzzBytes videoBytes, audioBytes;

  private:
    FuzzBytes configuration(FuzzInput *in) const
    {
        if ((choices & RAW) != 0) {
            return Take(in, in->byte());
        }
        if ((choices & REAL) != 0) {
            return FuzzBytes(kRigVideoConfig.begin(), kRigVideoConfig.end());
        }
        FuzzBytes out = {0, 0, 0, 1};
        const FuzzBytes sps = h264_model::SpsWriter(in).write();
        const FuzzBytes behind = Take(in, in->byte() & 31);
        const FuzzBytes pps = {0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
        out.insert(out.end(), sps.begin(), sps.end());
        out.insert(out.end(), pps.begin(), pps.end());
        out.insert(out.end(), behind.begin(), behind.end());
        return out;
    }
    std::unique_ptr<ExactCopy> videoCopy, audioCopy;
};

// What is registered of it.
struct Registered {
    Registered(const Told &told, bool isDescribed)
    {
        status = judge(told, isDescribed);
        if (status != 0) {
            return;
        }
        hasVideo = told.hasVideo();
        hasAudio = told.hasAudio();
        bitrate = told.video.bitrate;
        if (hasAudio) {
            const auto byte = [&](size_t i) {
                return i < told.audioBytes.size() ? told.audioBytes[i] : uint8_t{0};
            };
            audioHeader = {0xAF, 0, byte(0), byte(1)};
        }
    }
    // FLV, E.4.3, in front of an AVC decoder configuration record.
    FuzzBytes avccBox() const
    {
        const auto byte = [](size_t number) { return static_cast<uint8_t>(number); };
        FuzzBytes out = {
            0x17, 0, 0, 0, 0, 1, byte(exact.profile), byte(exact.constraints), byte(exact.level), 0xFF, 0xE1};
        out.insert(out.end(), {byte(sps.size() >> 8), byte(sps.size())});
        out.insert(out.end(), sps.begin(), sps.end());
        out.insert(out.end(), {1, byte(pps.size() >> 8), byte(pps.size())});
        out.insert(out.end(), pps.begin(), pps.end());
        return out;
    }
    FuzzBytes playerAvccBox() const
    {
        FuzzBytes out = avccBox();
        if (h264_model::NamesChroma(exact.profile) && standard.has_value()) {
            out.push_back(static_cast<uint8_t>(0xFC | standard->chromaFormat));
            out.push_back(static_cast<uint8_t>(0xF8 | standard->lumaDepth));
            out.push_back(static_cast<uint8_t>(0xF8 | standard->chromaDepth));
            out.push_back(0);
        }
        return out;
    }

    int32_t status;
    bool hasVideo = false, hasAudio = false;
    uint32_t bitrate = 0;
    FuzzBytes sps, pps, audioHeader;
    h264_model::ExactSps exact = {};
    std::optional<h264_model::StandardSps> standard;

  private:
    int32_t judge(const Told &told, bool isDescribed)
    {
        const bool isVideoGiven = told.video.configData != nullptr && told.video.configLen >= 1;
        const bool isAudioGiven = told.audio.configData != nullptr && told.audio.configLen >= 1;
        if ((!told.hasVideo() && !told.hasAudio()) || (told.hasVideo() && !isVideoGiven) ||
            (told.hasAudio() && !isAudioGiven)) {
            return RTMP_ERR_INVALID_ARGUMENT;
        }
        if (told.hasVideo() && (told.video.codecId != 7 || !readSets(told.videoBytes, isDescribed))) {
            return RTMP_ERR_VIDEO_INFO;
        }
        return told.hasAudio() && told.audio.codecId != 10 ? RTMP_ERR_AUDIO_INFO : 0;
    }
    bool readSets(const FuzzBytes &bytes, bool isDescribed)
    {
        std::optional<h264_model::Place> spsAt = h264_model::FindStandard(bytes, 7);
        std::optional<h264_model::Place> ppsAt = h264_model::FindStandard(bytes, 8);
        if (!isDescribed || !spsAt.has_value() || !ppsAt.has_value()) {
            spsAt = h264_model::FindExact(bytes, 7);
            ppsAt = h264_model::FindExact(bytes, 8);
        }
        if (!spsAt.has_value() || !ppsAt.has_value()) {
            return false;
        }
        sps = h264_model::BytesAt(bytes, *spsAt);
        pps = h264_model::BytesAt(bytes, *ppsAt);
        exact = h264_model::ReadExactSps(sps);
        standard = h264_model::ReadStandardSps(sps);
        return true;
    }
};

Value NumberMember(const char *name, double number)
{
    Value out;
    out.name = name;
    memcpy(&out.bits, &number, sizeof number);
    return out;
}

Value StereoMember(uint8_t stored)
{
    Value out;
    out.name = "stereo";
    out.type = AMF_BOOLEAN;
    out.boolean = stored;
    return out;
}

constexpr uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                               16000, 12000, 11025, 8000,  7350,  0,     0,     0};

uint32_t RateOf(const FuzzBytes &header)
{
    return kRates[(header[2] & 7) * 2 + (header[3] >> 7)];
}

std::vector<Value> MetadataOf(std::vector<Value> members)
{
    Value name;
    name.type = AMF_STRING;
    name.text = "onMetaData";
    Value object;
    object.type = AMF_OBJECT;
    object.members = std::move(members);
    return {name, object};
}

std::vector<Value> ExactMetadata(const Registered &told)
{
    std::vector<Value> members;
    if (told.hasVideo) {
        members = {NumberMember("width", told.exact.width), NumberMember("height", told.exact.height),
                   NumberMember("videocodecid", 7), NumberMember("avclevel", told.exact.level),
                   NumberMember("avcprofile", told.exact.profile)};
    }
    if (told.hasVideo && told.bitrate != 0) {
        members.push_back(NumberMember("videodatarate", told.bitrate / 1000));
    }
    if (told.hasAudio) {
        members.push_back(NumberMember("audiosamplerate", RateOf(told.audioHeader)));
        members.push_back(StereoMember(0));
        members.push_back(NumberMember("audiocodecid", 10));
    }
    return MetadataOf(members);
}

// As a reader stores it: booleans inverted.
std::vector<Value> PlayerMetadata(const Registered &told)
{
    std::vector<Value> members;
    if (told.hasVideo) {
        const uint32_t width = told.standard.has_value() ? told.standard->width : told.exact.width;
        const uint32_t height = told.standard.has_value() ? told.standard->height : told.exact.height;
        members = {NumberMember("width", width), NumberMember("height", height),
                   NumberMember("videocodecid", 7), NumberMember("avclevel", told.exact.level),
                   NumberMember("avcprofile", told.exact.profile)};
    }
    if (told.hasVideo && told.bitrate != 0) {
        members.push_back(NumberMember("videodatarate", told.bitrate / 1000.0));
    }
    if (told.hasAudio) {
        constexpr uint32_t channels[] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};
        const uint32_t count = channels[told.audioHeader[3] >> 3 & 15];
        if (RateOf(told.audioHeader) != 0) {
            members.push_back(NumberMember("audiosamplerate", RateOf(told.audioHeader)));
        }
        if (count != 0) {
            members.push_back(NumberMember("audiochannels", count));
        }
        members.push_back(StereoMember(count == 2 ? 0 : 1));
        members.push_back(NumberMember("audiocodecid", 10));
    }
    return MetadataOf(members);
}

void CheckBody(const uint8_t *body, size_t length, const FuzzBytes &expected)
{
    FUZZ_CHECK(body != nullptr && FuzzBytes(body, body + length) == expected);
}

void CheckPlayerMetadata(RtmpServer *server, const CodecInfo &info, const Registered &told)
{
    const FuzzBytes body(info.PlayerMetaData, info.PlayerMetaData + info.PlayerMetaDataLen);
    const std::vector<Value> expected = PlayerMetadata(told);
    FUZZ_CHECK(body.size() > 18 && body[13] == AMF_ECMA_ARRAY);
    FUZZ_CHECK(body[17] == expected[1].members.size());
    const ExactCopy copy(body);
    AmfObject list = {};
    FUZZ_CHECK(DecodeAmfBuffer(server, &list, copy.data(), copy.size(), 1) ==
               static_cast<int32_t>(body.size()));
    amf_model::CheckSame(list, expected, copy);
    FUZZ_CHECK(FreeAmfObject(server, &list, 0) == 0);
}

void CheckBodies(RtmpSession *session, const Registered &told, bool isDescribed)
{
    const CodecInfo *info = session->CodecInfo;
    FUZZ_CHECK(info != nullptr && session->MediaInfoAdded == 1);
    FUZZ_CHECK((info->VdCodecInfo != nullptr) == told.hasVideo &&
               (info->AdCodecInfo != nullptr) == told.hasAudio);
    CheckBody(info->MetaData, info->MetaDataLen, amf_model::Encode(ExactMetadata(told)).bytes);
    if (told.hasVideo) {
        CheckBody(info->VdCodecInfo->AvccBox, static_cast<size_t>(info->VdCodecInfo->AvccBoxLen),
                  told.avccBox());
    }
    if (told.hasAudio) {
        CheckBody(info->AdCodecInfo->AacSeqHdr, info->AdCodecInfo->AacSeqHdrLen, told.audioHeader);
    }
    FUZZ_CHECK((info->PlayerMetaData != nullptr) == isDescribed);
    FUZZ_CHECK((info->PlayerAvccBox != nullptr) == (isDescribed && told.hasVideo));
    if (isDescribed) {
        CheckPlayerMetadata(session->Server, *info, told);
    }
    if (isDescribed && told.hasVideo) {
        CheckBody(info->PlayerAvccBox, info->PlayerAvccBoxLen, told.playerAvccBox());
    }
}

// The messages that a player is sent in front of all frames.
void CheckGenerated(RtmpClient *client, const Registered *told, bool isDescribed)
{
    const bool isWhole = isDescribed && client->PlayerFlags != 0;
    const struct {
        uint32_t kind;
        bool isThere;
    } rows[] = {{RTMP_MSG_VIDEO, told != nullptr && told->hasVideo},
                {RTMP_MSG_AUDIO, told != nullptr && told->hasAudio},
                {RTMP_MSG_META_DATA, told != nullptr}};
    for (const auto &row : rows) {
        RtmpSendPkt *pkt = GenerateRtmpMsg(client, nullptr, row.kind);
        FUZZ_CHECK((pkt != nullptr) == row.isThere);
        if (pkt == nullptr) {
            continue;
        }
        if (row.kind == RTMP_MSG_VIDEO) {
            CheckBody(pkt->PayloadData, pkt->PayloadLength,
                      isWhole ? told->playerAvccBox() : told->avccBox());
        } else if (row.kind == RTMP_MSG_AUDIO) {
            CheckBody(pkt->PayloadData, pkt->PayloadLength, told->audioHeader);
        }
        FreeSendPkt(pkt);
    }
}

// --------------------------------------------------------------------------------------------------------
// frames

bool IsKeyFrame(const FuzzBytes &frame)
{
    size_t at = 0;
    while (at + 4 < frame.size()) {
        const size_t length = static_cast<size_t>(frame[at]) << 24 |
                              static_cast<size_t>(frame[at + 1]) << 16 |
                              static_cast<size_t>(frame[at + 2]) << 8 | frame[at + 3];
        at += 4;
        if (length > 0 && (frame[at] & 31) == 5) {
            return true;
        }
        at += length;
    }
    return false;
}

// A file that holds the frame behind 100 other bytes, a part of it, a pipe, and a descriptor that is
// nobody's.
enum FrameSource : uint8_t {
    FROM_MEMORY,
    FROM_FILE,
    FROM_SHORT_FILE,
    FROM_PIPE,
    FROM_CLOSED,
    FROM_BELOW_MAP
};

class FrameFile {
  public:
    FrameFile(uint8_t source, const FuzzBytes &frame) : source_(source)
    {
        if (source == FROM_FILE || source == FROM_SHORT_FILE || source == FROM_BELOW_MAP) {
            fd = memfd_create("frame", 0);
            const FuzzBytes front(kFront, 1);
            const size_t length = source == FROM_SHORT_FILE ? frame.size() / 2 : frame.size();
            FUZZ_CHECK(write(fd, front.data(), kFront) == kFront);
            FUZZ_CHECK(write(fd, frame.data(), length) == static_cast<ssize_t>(length));
        } else if (source == FROM_PIPE) {
            FUZZ_CHECK(pipe(pipe_) == 0);
            fd = pipe_[0];
        } else if (source == FROM_CLOSED) {
            fd = 1000000;
        }
    }
    FrameFile(const FrameFile &) = delete;
    ~FrameFile()
    {
        if (fd != 0 && source_ != FROM_CLOSED) {
            close(fd);
        }
        if (pipe_[1] != -1) {
            close(pipe_[1]);
        }
    }
    uint64_t mapOf(const uint8_t *data) const
    {
        const uint64_t address = reinterpret_cast<uint64_t>(data);
        return source_ == FROM_BELOW_MAP ? address + 1 : address - kFront;
    }
    int fd = 0;

  private:
    static constexpr ssize_t kFront = 100;
    const uint8_t source_;
    int pipe_[2] = {-1, -1};
};

// Parked sound with a file is referred to until it is sent, or its session ends.
struct HeldFrame {
    HeldFrame(uint8_t source, const FuzzBytes &frame) : data(frame), file(source, frame) {}
    ExactCopy data;
    FrameFile file;
};
using HeldFrames = std::vector<std::unique_ptr<HeldFrame>>;

struct FramesSent {
    std::vector<FuzzBytes> video, audio; // as they must come, tag header included
    bool isBroken = false;               // some frame could not be sent whole: the connection is over
    bool waits = false;                  // for a key frame
};

class Player {
  public:
    Player(SessionRig *rig, HeldFrames *held, uint8_t choices)
        : rig_(rig), held_(held), chunkSize_(rig->server->ChunkSize > 0 ? rig->server->ChunkSize : 128)
    {
        const RigClient made = rig->addClient();
        client = made.client;
        peer_ = made.peer;
        const int room = 1 << 20;
        const timeval atMost = {1, 0};
        (void)setsockopt(client->Socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof room); // as much as there is
        (void)setsockopt(client->Socket, SOL_SOCKET, SO_SNDTIMEO, &atMost, sizeof atMost);
        client->PlayerFlags = (choices & TODAYS_PLAYER) != 0 ? RTMP_PLAYERS_ALL : RTMP_PLAYERS_EXACT;
        if ((choices & STARTS_ANEW) != 0) {
            StartAnew(client, 0);
            sent.waits = (choices & TODAYS_PLAYER) != 0;
        }
    }

    // kind and source:8  time:8 or 64  length:16  head length:8  head
    void sendFrame(FuzzInput *in)
    {
        const uint8_t choices = in->byte();
        const bool isAudio = (choices & 1) != 0;
        time_ = (choices & 0x10) != 0 ? static_cast<uint64_t>(in->number(4)) << 32 | in->number(4)
                                      : time_ + in->byte();
        const uint8_t source = static_cast<uint8_t>((choices >> 5) % 6);
        const size_t length = 1 + in->number(2) % longest(isAudio, source);
        FuzzBytes frame = Take(in, std::min<size_t>(in->byte(), length));
        for (size_t i = frame.size(); i < length; i++) {
            frame.push_back(static_cast<uint8_t>(i));
        }
        held_->push_back(std::make_unique<HeldFrame>(source, frame));
        const HeldFrame &held = *held_->back();
        const bool isRepeated =
            isAudio && (choices & 0x0E) == 0x0E && source == FROM_MEMORY; // more than may be parked
        for (int i = 0; i < (isRepeated ? 250 : 1); i++) {
            sendOnce(held.data, held.file, isAudio ? RTMP_FRAME_AUDIO : RTMP_FRAME_VIDEO);
            note(frame, isAudio);
        }
        sent.isBroken = sent.isBroken || source >= FROM_SHORT_FILE || client->MessageState == MESSAGE_CUT;
    }

    void checkReceived()
    {
        const Bytes drained = DrainBytes(peer_);
        if (sent.isBroken) {
            return;
        }
        const FuzzBytes bytes(drained.begin(), drained.end());
        chunk_model::Parser parser(bytes, chunkSize_, client->PlayerFlags != 0);
        for (const chunk_model::Message &message : parser.all(&lanes_)) {
            FUZZ_CHECK(message.type == kVideoType || message.type == kAudioType);
            if (message.type == kVideoType) {
                FUZZ_CHECK(nextVideo_ < sent.video.size() && message.payload == sent.video[nextVideo_]);
                nextVideo_++;
                continue;
            }
            while (nextAudio_ < sent.audio.size() && message.payload != sent.audio[nextAudio_]) {
                nextAudio_++; // was too much to be parked
            }
            FUZZ_CHECK(nextAudio_ < sent.audio.size());
            nextAudio_++;
        }
        FUZZ_CHECK(nextVideo_ == sent.video.size());
    }

    RtmpClient *client;
    FramesSent sent;

  private:
    // Nobody reads while a frame is written, and every write costs room in the socket, whatever its length:
    // the file path makes one for each chunk, and sound waits for a picture.
    size_t longest(bool isAudio, uint8_t source) const
    {
        const size_t chunk = std::min<size_t>(chunkSize_, kLongestFrame);
        const size_t most = isAudio ? (chunk < 16 ? 100 : 300) : kLongestFrame;
        return source == FROM_MEMORY ? most : std::min(most, chunk * (isAudio ? 2 : 40));
    }
    void sendOnce(const ExactCopy &data, const FrameFile &file, int64_t type)
    {
        const bool isIdr = HasIdrSlice(data.data(), static_cast<int32_t>(data.size())) != 0;
        FUZZ_CHECK(isIdr == IsKeyFrame(FuzzBytes(data.data(), data.data() + data.size())));
        (void)RtmpSendData(rig_->session, data.data(), static_cast<int32_t>(data.size()), file.fd,
                           file.fd != 0 ? file.mapOf(data.data()) : 0, time_, type);
    }
    void note(const FuzzBytes &frame, bool isAudio)
    {
        if (rig_->session->MediaInfoAdded != 1) {
            return;
        }
        if (isAudio) {
            FuzzBytes body = {0xAF, 1};
            body.insert(body.end(), frame.begin(), frame.end());
            sent.audio.push_back(body);
            return;
        }
        const bool isKey = IsKeyFrame(frame);
        sent.waits = sent.waits && !isKey && rig_->session->MediaKind != RTMP_MEDIA_AUDIO;
        if (sent.waits) {
            return;
        }
        const uint8_t type = frame.size() > 4 ? frame[4] & 31 : 0;
        const bool isTagged = client->PlayerFlags != 0 ? isKey : type == 5 || type == 7 || type == 8;
        FuzzBytes body = {static_cast<uint8_t>(isTagged ? 0x17 : 0x27), 1, 0, 0, 0};
        body.insert(body.end(), frame.begin(), frame.end());
        sent.video.push_back(body);
    }
    SessionRig *rig_;
    HeldFrames *held_;
    const size_t chunkSize_; // that the player is sent
    int peer_;
    uint64_t time_ = 1000;
    size_t nextVideo_ = 0, nextAudio_ = 0;
    std::map<uint32_t, chunk_model::Parser::Lane> lanes_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const uint8_t choices = in.byte();
    const bool isDescribed = (choices & DESCRIPTION) != 0;
    const uint32_t chunkSize = ChunkSizeOf(&in);
    HeldFrames held; // longer than the session
    SessionRig rig(RigSetup{.chunkSize = static_cast<int32_t>(chunkSize), .media = RTMP_MEDIA_NONE});
    RtmpPlayerSettings(rig.server, isDescribed ? RTMP_PLAYERS_DESCRIPTION : RTMP_PLAYERS_EXACT);
    Player player(&rig, &held, choices);

    for (int left = 1 + in.byte() % 3; left > 0; left--) {
        const Told told(&in);
        const Registered expected(told, isDescribed);
        const CodecInfo *before = rig.session->CodecInfo;
        const uint32_t wasAdded = rig.session->MediaInfoAdded;
        FUZZ_CHECK(RtmpAddMediaInfo(rig.session, told.hasVideo() ? &told.video : nullptr,
                                    told.hasAudio() ? &told.audio : nullptr) == expected.status);
        if (expected.status == 0) {
            CheckBodies(rig.session, expected, isDescribed);
            CheckGenerated(player.client, &expected, isDescribed);
            continue;
        }
        FUZZ_CHECK(rig.session->MediaInfoAdded == wasAdded);
        FUZZ_CHECK(rig.session->CodecInfo ==
                   (expected.status == RTMP_ERR_INVALID_ARGUMENT ? before : nullptr));
        if (rig.session->CodecInfo == nullptr) {
            CheckGenerated(player.client, nullptr, isDescribed);
        }
    }
    for (size_t frames = 0; in.size() > 0 && frames < kMostFrames; frames++) {
        player.sendFrame(&in);
        player.checkReceived();
    }
    return 0;
}
