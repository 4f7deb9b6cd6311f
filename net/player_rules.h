// The rules in which the library is stricter or odder than RTMP 1.0, AMF0 and FLV: what it does by default,
// the flag of RtmpPlayerSettings under which a connection is served by the standard instead, and who asks.
#pragma once

#include "net/atomic.h"
#include "rtmpcast/player.h"

// By what they touch, from the wire inwards.
enum PlayerRule {
    // the handshake
    RULE_PLAIN_HANDSHAKE,
    RULE_VERSION_IN_S0,
    // received chunks
    RULE_CHUNK_STREAM_ID,
    RULE_MESSAGE_END,
    RULE_EMPTY_MESSAGE,
    RULE_EXTENDED_TIME_IN,
    RULE_MESSAGE_STREAM_IN,
    RULE_CHUNK_SIZE_IN,
    RULE_ABORT,
    RULE_ACKNOWLEDGE,
    // sent chunks
    RULE_HEADER_TYPE,
    RULE_EXTENDED_TIME_OUT,
    RULE_THREE_BYTE_ID,
    RULE_CHUNK_STREAM_3,
    // received messages
    RULE_UNKNOWN_COMMAND,
    RULE_UNKNOWN_MESSAGE,
    RULE_PUBLISH,
    RULE_SEEK,
    RULE_CONNECT_VALUES,
    RULE_CONNECT_KEYS,
    RULE_CONNECT_REJECTED,
    RULE_STREAM_NAME,
    // sent media
    RULE_METADATA,
    RULE_AVC_RECORD,
    RULE_PARAMETER_SETS,
    RULE_KEY_FRAME_TAG,
    RULE_TIMELINE,
    RULE_KEY_FRAME_FIRST,
    RULE_COUNT
};

struct PlayerRuleRow {
    enum PlayerRule Rule;
    uint32_t Flag;
    const char *Exact;   // what the library does without the flag
    const char *AskedBy; // the procedures that ask, separated by blanks
};

constexpr PlayerRuleRow kPlayerRules[] = {
    {RULE_PLAIN_HANDSHAKE, RTMP_PLAYERS_HANDSHAKE, "C1 and C2 must be signed with the player's key.",
     "AnswerC1 TakeC2"},
    {RULE_VERSION_IN_S0, RTMP_PLAYERS_VERSION, "S0 is a random byte from 0 to 127.", "FillS1"},
    {RULE_CHUNK_STREAM_ID, RTMP_PLAYERS_CHUNKS_IN, "Bit 4 of a chunk stream id is masked out.",
     "ReadRtmpMessage"},
    {RULE_MESSAGE_END, RTMP_PLAYERS_CHUNKS_IN,
     "A message is complete with its first chunk, or with one that is not full.", "ReadRtmpMessage"},
    {RULE_EMPTY_MESSAGE, RTMP_PLAYERS_CHUNKS_IN, "A message without payload ends the connection.",
     "ReadRtmpMessage"},
    {RULE_EXTENDED_TIME_IN, RTMP_PLAYERS_CHUNKS_IN, "No type 3 chunk has an extended timestamp.",
     "ReadRtmpMessage"},
    {RULE_MESSAGE_STREAM_IN, RTMP_PLAYERS_CHUNKS_IN,
     "Only a header of type 0 gives a message its message stream; behind any other it is 0.",
     "ReadRtmpMessage SetStreamOfRequest"},
    {RULE_CHUNK_SIZE_IN, RTMP_PLAYERS_CHUNKS_IN,
     "Set Chunk Size is taken whole, with the reserved bit and also 0.", "TakenChunkSize"},
    {RULE_ABORT, RTMP_PLAYERS_CHUNKS_IN, "Abort drops nothing.", "Abort"},
    {RULE_ACKNOWLEDGE, RTMP_PLAYERS_ACKNOWLEDGE,
     "Nothing is acknowledged, and an acknowledgement has no value.",
     "AcknowledgeReceived ProtocolControlPayload"},
    {RULE_HEADER_TYPE, RTMP_PLAYERS_CHUNKS_OUT,
     "A header is shortened against the first message of its chunk stream instead of the last.",
     "ChooseHdrType HdrTypeOf"},
    {RULE_EXTENDED_TIME_OUT, RTMP_PLAYERS_CHUNKS_OUT, "No type 3 chunk carries the extended timestamp.",
     "SeparatorOf"},
    {RULE_THREE_BYTE_ID, RTMP_PLAYERS_CHUNKS_OUT, "The high byte of a long chunk stream id goes first.",
     "FillChunkHdrFor"},
    {RULE_CHUNK_STREAM_3, RTMP_PLAYERS_CHUNKS_OUT,
     "NetConnection.Connect.Failed, and the answer to a service's ping, go out on chunk stream 0.",
     "AddressReply"},
    {RULE_UNKNOWN_COMMAND, RTMP_PLAYERS_COMMANDS, "An unknown command ends the connection.", "IsIgnored"},
    {RULE_UNKNOWN_MESSAGE, RTMP_PLAYERS_COMMANDS,
     "Data, shared objects, AMF3 forms and three user control events end the connection.", "IsIgnored"},
    {RULE_PUBLISH, RTMP_PLAYERS_COMMANDS, "\"publish\" is an unknown command.", "FindRuledCommand"},
    {RULE_SEEK, RTMP_PLAYERS_COMMANDS, "\"seek\" is an unknown command.", "FindRuledCommand"},
    {RULE_CONNECT_VALUES, RTMP_PLAYERS_CONNECT,
     "The application must contain \"live\", fpad must be a boolean, and AAC and H.264 must be among the "
     "codecs.",
     "FindConnectKey"},
    {RULE_CONNECT_KEYS, RTMP_PLAYERS_CONNECT, "A key of \"connect\" may be cut short.", "FindConnectKey"},
    {RULE_CONNECT_REJECTED, RTMP_PLAYERS_CONNECT, "A refused \"connect\" is not answered.", "AnswerRefusal"},
    {RULE_STREAM_NAME, RTMP_PLAYERS_STREAM_NAME, "A stream is looked up by the whole name.", "FindStream"},
    {RULE_METADATA, RTMP_PLAYERS_DESCRIPTION,
     "onMetaData lacks the value of \"stereo\", ends two bytes late, and has whole macroblocks for a "
     "picture.",
     "GeneratePlayerMetadata ReferToMetaData"},
    {RULE_AVC_RECORD, RTMP_PLAYERS_DESCRIPTION,
     "The AVC decoder configuration record of a High profile lacks chroma format and bit depths.",
     "CreatePlayerAvccBox FindAvcSequenceHeader"},
    {RULE_PARAMETER_SETS, RTMP_PLAYERS_DESCRIPTION,
     "Parameter sets begin and end at 4-byte start codes only, and a long PPS never ends the data.",
     "CopyOfVideoConfiguration"},
    {RULE_KEY_FRAME_TAG, RTMP_PLAYERS_DESCRIPTION, "The first NAL unit alone tells a key frame.",
     "WriteFrameTo"},
    {RULE_TIMELINE, RTMP_PLAYERS_TIMELINE, "Message time is the time since the connection was made.",
     "FillFrameMessage HasOwnTimeline StartAnew MovesSenderClock"},
    {RULE_KEY_FRAME_FIRST, RTMP_PLAYERS_KEY_FRAME, "A player gets frames from any picture on.",
     "MayHaveFrame StartAnew MovesSenderClock"},
};
static_assert(sizeof kPlayerRules / sizeof kPlayerRules[0] == RULE_COUNT, "every rule has its row");

// What is odd for every player, whatever the flags; none that was tried meets it, and each is marked KEPT
// where it stands:
//   - a ping before "play" gets no answer, and createStream is answered once a connection;
//   - of received AMF0, the length of a long string, the index of a reference and an object end among unnamed
//   values
//     are read otherwise; no AMF3 is;
//   - an FLV audio tag says 44.1 kHz stereo, an AAC sequence header has two bytes of AudioSpecificConfig
//   without an
//     explicit frequency, and a video tag has no composition time;
//   - audio, video and aggregates from a player end its connection, whose socket then stays open.

constexpr bool AreInOrder(const PlayerRuleRow *rows)
{
    for (int i = 0; i < RULE_COUNT; i++) {
        if (rows[i].Rule != i) {
            return false;
        }
    }
    return true;
}
static_assert(AreInOrder(kPlayerRules), "a rule is its row's number");

// The flags alone: nothing of the texts above reaches the library.
struct PlayerRuleFlags {
    uint32_t Of[RULE_COUNT];
};

constexpr PlayerRuleFlags FlagsOf(const PlayerRuleRow *rows)
{
    PlayerRuleFlags flags = {};
    for (int i = 0; i < RULE_COUNT; i++) {
        flags.Of[i] = rows[i].Flag;
    }
    return flags;
}
constexpr PlayerRuleFlags kRuleFlags = FlagsOf(kPlayerRules);

// Allows tells whether a connection is served by the standard in place of this rule.
inline bool Allows(const RtmpClient *client, enum PlayerRule rule)
{
    return (client->PlayerFlags & kRuleFlags.Of[rule]) != 0;
}

// The same for what a server prepares for all connections to come.
inline bool Allows(const RtmpServer *server, enum PlayerRule rule)
{
    return (LoadShared(&server->PlayerFlags) & kRuleFlags.Of[rule]) != 0;
}
