// Every command in every state of a player: what is logged, what is answered, and the state behind it.
#include "serve/served_peer.h"
#include "support/wire_replies.h"

#include <map>

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t kStatesOfPlayers[] = {CLIENT_STATE_HANDSHAKE_DONE, CLIENT_STATE_CONNECT_DONE,
                                         CLIENT_STATE_CREATESTREAM_DONE, CLIENT_STATE_PLAY_DONE,
                                         CLIENT_STATE_PAUSE_DONE};

// What a command comes to in a state where it is answered.
struct Answer {
    uint32_t state;
    const char *replies; // as RepliesIn has them
};

enum class Standing {
    OfPlayers,  // answered in some states, and in vain in the others
    OfServices, // heard, and in vain for whoever is no service
    Unknown,    // ends the connection by default; is passed over where the rules allow it
    Denied,     // ends the connection
};

struct AskedCommand {
    std::string name;
    Bytes payload;
    Standing standing;
    Lines heard; // what it leaves in the log wherever it comes
    std::map<uint32_t, Answer> answers = {};
    const char *inVain = nullptr; // the line of the other states
};

// All that can be seen of it.
struct Outcome {
    Lines lines;
    std::string replies;
    uint32_t state;
    bool ended;
    int32_t players; // of the session, its watcher included
    size_t records;  // how often the host was asked to record

    bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
{
    out << "state " << outcome.state << (outcome.ended ? ", ended, " : ", ") << outcome.players
        << " players, " << outcome.records << " recordings, replies" << outcome.replies << "\n";
    for (const std::string &line : outcome.lines) {
        out << "    " << line << "\n";
    }
    return out;
}

Lines Then(Lines left, const Lines &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Lines Received(const std::string &what)
{
    return {"6 INFO: ParseCmdMsgReq: Received Command message: " + what};
}

Bytes CommandNamed(const std::string &name, const char *rest = "05")
{
    return amf0::Values({amf0::String(name), amf0::Number(7)}).bytes + Hex(rest);
}

constexpr char kStarted[] = " onStatus NetStream.Play.Start |RtmpSampleAccess onMetaData video audio";

std::vector<AskedCommand> PlayersCommands()
{
    const std::string started = kStarted;
    static const std::string first = " onStatus NetStream.Play.Reset event" + started;
    static const std::string again = " event onStatus NetStream.Play.Stop event" + started;
    static const std::string anew = " event" + started;
    static const std::string unpaused = " event onStatus NetStream.Unpause.Notify" + started;
    const char *paused = " onStatus NetStream.Pause.Notify";
    const uint32_t playing = CLIENT_STATE_PLAY_DONE;
    const uint32_t pausing = CLIENT_STATE_PAUSE_DONE;
    return {
        {"connect",
         wire::ConnectCommand(),
         Standing::OfPlayers,
         Received("CONNECT"),
         {{CLIENT_STATE_HANDSHAKE_DONE,
           {CLIENT_STATE_CONNECT_DONE,
            " window bandwidth event chunks _result NetConnection.Connect.Success onBWDone"}}},
         "handshake done"},
        {"createStream",
         wire::CreateStreamCommand(),
         Standing::OfPlayers,
         Received("CREATESTREAM"),
         {{CLIENT_STATE_CONNECT_DONE, {CLIENT_STATE_CREATESTREAM_DONE, " _result"}}},
         "connect done"},
        {"play",
         wire::PlayCommand("live"),
         Standing::OfPlayers,
         Received("PLAY"),
         {{CLIENT_STATE_CREATESTREAM_DONE, {playing, first.c_str()}},
          {playing, {playing, again.c_str()}},
          {pausing, {playing, anew.c_str()}}},
         "createstream/pause/play done"},
        {"pause",
         wire::PauseCommand(true),
         Standing::OfPlayers,
         Received("PAUSE"),
         {{playing, {pausing, paused}}, {pausing, {pausing, paused}}},
         "play done"},
        {"unpause",
         wire::PauseCommand(false),
         Standing::OfPlayers,
         Received("PAUSE"),
         {{playing, {playing, unpaused.c_str()}}, {pausing, {playing, unpaused.c_str()}}},
         "play done"},
        {"deleteStream",
         wire::DeleteStreamCommand(),
         Standing::OfPlayers,
         Then(Received("DELETESTREAM"), {"6 INFO: ProcessSend: Checking state of connected client"}),
         {{CLIENT_STATE_CREATESTREAM_DONE, {CLIENT_STATE_DELETESTREAM, ""}},
          {playing, {CLIENT_STATE_DELETESTREAM, ""}},
          {pausing, {CLIENT_STATE_DELETESTREAM, ""}}},
         "play/pause/createstream done"},
    };
}

std::vector<AskedCommand> ServicesCommands()
{
    const struct {
        const char *name, *line;
    } rows[] = {{"_result", "RESULT"},
                {"_error", "ERROR"},
                {"onBWDone", "COMMAND_MSG_ON_BW_DONE"},
                {"onStatus", "ONSTATUS"},
                {"onFCPublish", "onFCPublish"},
                {"ping", "UstreamPing"},
                {"setChallenge", "COMMAND_MSG_SET_CHALLENGE"},
                {"onClientLogin", "ONCLIENTLOGIN"},
                {"recordStarted", "USTREAM_RECORD_STARTED"},
                {"recordError", "USTREAM_RECORD_ERROR"},
                {"recordReady", "USTREAM_RECORD_READY"},
                {"recordSaved", "USTREAM_RECORD_SAVED"},
                {"recordTimerWarning", "USTREAM_RECORD_TIMER_WARNING"},
                {"recordLimitExceeded", "USTREAM_RECORD_LIMIT_EXCEEDED"},
                {"_checkbw", "CHECKBW"}};
    std::vector<AskedCommand> commands;
    for (const auto &row : rows) {
        commands.push_back({row.name, CommandNamed(row.name), Standing::OfServices, Received(row.line)});
    }
    return commands;
}

AskedCommand Unsupported(const std::string &name)
{
    return {name,
            CommandNamed(name),
            Standing::Unknown,
            {"6 INFO: ParseCmdMsgReq: Unsupported command message: " + name}};
}

AskedCommand Seek(const Served &way)
{
    if (!way.standard()) {
        return Unsupported("seek");
    }
    const char *sought = " onStatus NetStream.Seek.Notify";
    return {"seek",
            CommandNamed("seek", "05 00 0000000000000000"),
            Standing::OfPlayers,
            Received("SEEK"),
            {{CLIENT_STATE_PLAY_DONE, {CLIENT_STATE_PLAY_DONE, sought}},
             {CLIENT_STATE_PAUSE_DONE, {CLIENT_STATE_PAUSE_DONE, sought}}},
            "play done"};
}

AskedCommand Publish(const Served &way)
{
    if (!way.standard()) {
        return Unsupported("publish");
    }
    return {
        "publish", CommandNamed("publish", "05 02 0003 'cam'"), Standing::Denied,
        Then(Received("PUBLISH"), {"3 ERROR: ParseCmdMsgReq: Publishing is not served",
                                   "3 ERROR: ParseRequestMsg: Cannot parse command request message",
                                   "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message"})};
}

std::vector<AskedCommand> EveryAskedCommand(const Served &way)
{
    std::vector<AskedCommand> commands = PlayersCommands();
    for (const AskedCommand &command : ServicesCommands()) {
        commands.push_back(command);
    }
    for (const char *name : {"getStreamLength", "FCSubscribe", "FCPublish", "releaseStream", "closeStream",
                             "Play", "pla", "playx", "%s%n", ""}) {
        commands.push_back(Unsupported(name));
    }
    commands.push_back(
        {"moduleInfo", CommandNamed("moduleInfo"), Standing::Unknown,
         Then(Received("moduleInfo"), {"6 INFO: ParseCmdMsgReq: \tNot really sure what to do with it"})});
    commands.push_back(Seek(way));
    commands.push_back(Publish(way));
    return commands;
}

// "play" looks for its stream, and joins it, before anybody asks for the state.
bool Joins(const AskedCommand &command, uint32_t state)
{
    return command.name == "play" && state < CLIENT_STATE_PLAY_DONE;
}

void ExpectOfPlayers(const AskedCommand &command, uint32_t state, Outcome &outcome)
{
    const auto answer = command.answers.find(state);
    if (answer == command.answers.end()) {
        outcome.lines =
            Then(outcome.lines, {"3 ERROR: ProcessSend: Client state is not " + std::string(command.inVain),
                                 "3 ERROR: ServeRtmpClient: Error occured while validating RTMP message"});
        return;
    }
    outcome.state = answer->second.state;
    outcome.replies = answer->second.replies;
    if (outcome.state == CLIENT_STATE_DELETESTREAM) {
        outcome.lines.push_back("6 INFO: Changing state to deletestream : 12");
    }
}

Outcome Expected(const AskedCommand &command, uint32_t state, const Served &way)
{
    const bool isIn = state >= CLIENT_STATE_PLAY_DONE || Joins(command, state);
    Outcome outcome = {command.heard, "", state, false, isIn ? 2 : 1, 0};
    if (Joins(command, state)) {
        outcome.lines.push_back("6 INFO: AddClientInSession: Adding client: No. of connected clients : 2");
    }
    switch (command.standing) {
    case Standing::OfPlayers:
        ExpectOfPlayers(command, state, outcome);
        break;
    case Standing::OfServices:
        outcome.lines.push_back("3 ERROR: ServeRtmpClient: Error occured while validating RTMP message");
        outcome.replies = command.name == "ping" ? " empty" : "";
        outcome.records = command.name == "recordError" || command.name == "recordLimitExceeded" ? 1 : 0;
        break;
    case Standing::Unknown:
        outcome.ended = !way.standard();
        if (outcome.ended) {
            outcome.lines.push_back("3 ERROR: ServeRtmpClient: Unsupported message type received");
            outcome.replies = " onStatus NetConnection.Connect.Failed";
        }
        break;
    case Standing::Denied:
        outcome.ended = true;
        outcome.replies = " onStatus NetStream.Publish.Denied";
        break;
    }
    return outcome;
}

// What a row of replies is made of. The lengths and types of headers stand for control messages, and for the
// pong, which has nothing in it.
const std::pair<std::string, Bytes> kPieces[] = {
    {"window", Hex("000004 05")},
    {"bandwidth", Hex("000005 06")},
    {"event", Hex("000006 04")},
    {"chunks", Hex("000004 01")},
    {"empty", Hex("000000 14")},
    {"video", Hex("17 00 00 00 00 01 42")},
    {"audio", Hex("AF 00 12 10")},
    {"_result", Hex("02 0007 '_result'")},
    {"_error", Hex("02 0006 '_error'")},
    {"onBWDone", Hex("02 0008 'onBWDone'")},
    {"onStatus", Hex("02 0008 'onStatus'")},
    {"onMetaData", Hex("02 000A 'onMetaData'")},
    {"|RtmpSampleAccess", Hex("02 0011 '|RtmpSampleAccess'")},
};

// The code of a status that stands at `at`, or nothing.
std::string CodeAt(const Bytes &bytes, size_t at)
{
    const std::string start(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                            bytes.begin() + static_cast<std::ptrdiff_t>(std::min(at + 9, bytes.size())));
    if (start.find("Net") != 3 || start[0] != 2) {
        return "";
    }
    const Bytes code = Slice(bytes, at + 3, bytes[at + 1] * 256U + bytes[at + 2]);
    return std::string(code.begin(), code.end());
}

std::string PieceAt(const Bytes &bytes, size_t at)
{
    for (const auto &[name, piece] : kPieces) {
        if (Slice(bytes, at, piece.size()) == piece) {
            return name;
        }
    }
    return CodeAt(bytes, at);
}

// The pieces in their order, a blank before each.
std::string RepliesIn(const Bytes &bytes)
{
    std::string replies;
    for (size_t at = 0; at < bytes.size(); at++) {
        const std::string piece = PieceAt(bytes, at);
        replies += piece.empty() ? "" : " " + piece;
    }
    return replies;
}

// Where RTMP 1.0 is kept to, headers may be shorter than kPieces has them: they are read, and written whole.
Bytes WithWholeHeaders(const std::vector<wire::Message> &messages)
{
    Bytes out;
    for (const wire::Message &message : messages) {
        Append(out, BigEndian(message.payload.size(), 3) + Bytes{message.type} + message.payload);
    }
    return out;
}

class CommandsInStates : public testing::TestWithParam<Served> {
  protected:
    Outcome seenOf(ServedPeer &peer, const AskedCommand &command)
    {
        served.rig.log.clear();
        HostFakes::get().recordActions.clear();
        peer.command(command.payload);
        const Round was = peer.round();
        EXPECT_EQ(was == ROUND_ERROR, GetParam().steady && peer.hasEnded());
        Lines lines = served.rig.log.lines();
        EXPECT_EQ(lines[0].find("6 INFO: ServeRtmpClient: Serving RTMP Client: "), 0U);
        lines.erase(lines.begin());
        const Bytes replies = GetParam().standard() ? WithWholeHeaders(peer.messages()) : peer.replies();
        return {lines,
                RepliesIn(replies),
                peer.state(),
                peer.hasEnded(),
                served.rig.session->ClientCount,
                HostFakes::get().recordActions().size()};
    }
    void expectHeard(ServedPeer &peer)
    {
        served.rig.log.clear();
        peer.send(wire::Chunks({.payload = Hex("00000001"), .type = 3, .chunkStream = 2}));
        EXPECT_EQ(peer.round(), ROUND_AGAIN);
        EXPECT_EQ(served.rig.log.count("6 INFO: ParseRequestMsg: Received Protocol control message: "
                                       "ACKNOWLEDGEMENT"),
                  1U);
    }
    ServedRig served{GetParam()};
};

} // namespace

TEST_P(CommandsInStates, AreLoggedAndAnsweredAndMoveThePlayerAsTheTableHasIt)
{
    for (const uint32_t state : kStatesOfPlayers) {
        for (const AskedCommand &command : EveryAskedCommand(GetParam())) {
            SCOPED_TRACE("\"" + command.name + "\" in state " + std::to_string(state));
            ServedPeer peer(served.rig, GetParam());
            peer.advanceTo(state);
            const Outcome seen = seenOf(peer, command);
            EXPECT_EQ(seen, Expected(command, state, GetParam()));
            if (!seen.ended && seen.state != CLIENT_STATE_DELETESTREAM) {
                expectHeard(peer);
            }
            ASSERT_FALSE(HasFailure());
        }
    }
    served.expectAlone();
}

INSTANTIATE_TEST_SUITE_P(Of, CommandsInStates, testing::ValuesIn(kEveryServed), NameOfServed);
