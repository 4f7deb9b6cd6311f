// Frames, replies and senders when memory or a lock fails: what is returned and said, and that a later try
// finds everything in order.
#include "delivery/replies/start_sequence.h"
#include "delivery/senders/monitor.h"
#include "delivery/senders/threaded_queue.h"
#include "delivery/write/client_send.h"
#include "delivery/write/fan_out.h"
#include "instruments/ring.h"
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/client.h"
#include "support/calls.h"
#include "support/session_rig.h"

#include "rtmpcast/player.h"
#include "rtmpcast/rtmpcast.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

const std::string kFanOut = "3 ERROR: SendMsgToConnectedClients: ";
const std::string kSend = "3 ERROR: SendMsgToClient: ";
const std::string kProcess = "3 ERROR: ProcessSend: ";

std::string Pointer(const void *pointer)
{
    char text[32];
    snprintf(text, sizeof text, "%p", pointer);
    return text;
}

int SendFrame(SessionRig &rig, const Bytes &frame)
{
    return SendMsgToConnectedClients(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0, 20,
                                     RTMP_MSG_AUDIO);
}

bool IsFree(RtmpMutex *lock)
{
    return pthread_mutex_trylock(lock) == 0 && pthread_mutex_unlock(lock) == 0;
}

// A message of six bytes on chunk stream `id`.
RtmpSendPkt *Message(uint32_t id)
{
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = id;
    message->MsgKind = RTMP_MSG_STREAM_BEGIN;
    message->PayloadLength = 6;
    message->PayloadData = static_cast<uint8_t *>(calloc(1, 6));
    return message;
}

RtmpRecvPkt NoRequest()
{
    return RtmpRecvPkt{};
}

} // namespace

// ----------------------------------------------------------------------------------------------- fan-out

TEST(FanOutFailing, WithoutMemoryForThePiecesNobodyGetsTheFrameAndTheNextOneGoesOut)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    rig.log.clear();
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(SendFrame(rig, Counting(100)), -1);
    }
    EXPECT_EQ(rig.log.lines(), Lines{kFanOut + "Cannot allocate memory to chunks"});
    EXPECT_TRUE(DrainBytes(player.peer).empty());
    EXPECT_EQ(SendFrame(rig, Counting(100)), 0);
    EXPECT_FALSE(DrainBytes(player.peer).empty());
}

TEST(FanOutFailing, ALargerFrameWithoutMemoryLeavesTheListForTheSmallerOnes)
{
    SessionRig rig(128);
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendFrame(rig, Counting(100)), 0);
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(SendFrame(rig, Counting(5000)), -1);
    }
    DrainBytes(player.peer);
    EXPECT_EQ(SendFrame(rig, Counting(100)), 0);
    EXPECT_FALSE(DrainBytes(player.peer).empty());
}

TEST(FanOutFailing, WithoutTheClientListNobodyGetsTheFrame)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    rig.log.clear();
    {
        const FailingCall failing(Call::MutexLock, 1, &rig.session->ClientListLock);
        EXPECT_EQ(SendFrame(rig, Counting(100)), -1);
    }
    EXPECT_EQ(rig.log.lines(), Lines{kFanOut + "Cannot lock client list"});
    EXPECT_TRUE(DrainBytes(player.peer).empty());
    EXPECT_TRUE(IsFree(&rig.session->ClientListLock));
}

TEST(FanOutFailing, OneClientsFailureIsReportedAndTheOthersAreServed)
{
    const std::string noMessage = kFanOut + "Cannot generate rtmp data message of client : ";
    const std::string notStored = kFanOut + "Cannot add send packet in list";
    const std::string lookup = "3 ERROR: GetSendPktFromList: ";
    const std::string add = "3 ERROR: AddSendPkt: ";
    const struct {
        const char *sentence;
        Call call;
        int number; // of the first client's send list lock
        std::string first;
        std::string second;
    } rows[] = {
        {"no stored time", Call::MutexLock, 1, lookup + "Cannot lock send packet list", noMessage},
        {"stored time not given back", Call::MutexUnlock, 1, lookup + "Cannot unlock send packet list",
         noMessage},
        {"reference not stored", Call::MutexLock, 3, add + "Cannot lock send packet list", notStored},
        {"reference not given back", Call::MutexUnlock, 3, add + "Cannot unlock send packet list", notStored},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SessionRig rig;
        const RigClient failing = rig.addClient();
        const RigClient other = rig.addClient();
        rig.log.clear();
        {
            const FailingCall call(row.call, row.number, &failing.client->SendStrmListLock);
            EXPECT_EQ(SendFrame(rig, Counting(100)), -1);
        }
        const std::string who = row.second == noMessage ? Pointer(failing.client) : "";
        EXPECT_EQ(rig.log.lines(), (Lines{row.first, row.second + who}));
        EXPECT_TRUE(DrainBytes(failing.peer).empty());
        EXPECT_EQ(DrainBytes(other.peer).size(), 12U + 2 + 100);
        EXPECT_EQ(failing.client->SendPktHead, nullptr);
        EXPECT_TRUE(IsFree(&failing.client->WriteLock));

        EXPECT_EQ(SendFrame(rig, Counting(100)), 0);
        EXPECT_EQ(DrainBytes(failing.peer).size(), 12U + 2 + 100); // with a full header
    }
}

TEST(FanOutFailing, AReferenceWithoutMemoryIsReportedAndTheOthersAreServed)
{
    SessionRig rig;
    ASSERT_EQ(SendFrame(rig, Counting(100)), 0); // nobody plays; the piece list is there
    const RigClient failing = rig.addClient();
    const RigClient other = rig.addClient();
    rig.log.clear();
    {
        const FailingAllocation call(1);
        EXPECT_EQ(SendFrame(rig, Counting(100)), -1);
    }
    EXPECT_EQ(rig.log.lines(), Lines{kFanOut + "Cannot add send packet in list"});
    EXPECT_TRUE(DrainBytes(failing.peer).empty());
    EXPECT_EQ(DrainBytes(other.peer).size(), 12U + 2 + 100);
}

// ------------------------------------------------------------------------------------- single messages

TEST(SendFailing, EveryAllocationOfAMessageOnItsWayIsNamed)
{
    const struct {
        int number;
        Lines lines;
    } rows[] = {
        {1,
         {"3 ERROR: GenerateChunkHdr: Cannot allocate memory to chunkHdr",
          kSend + "Generation of chunk header failed"}},
        {2,
         {"3 ERROR: GenerateChunkHdr: Cannot allocate memory to chunkHdr->Data",
          kSend + "Generation of chunk header failed"}},
        {3, {kSend + "Cannot allocate memory to chunks"}},
    };
    for (const auto &row : rows) {
        for (const bool stored : {true, false}) {
            SCOPED_TRACE(std::to_string(row.number) + (stored ? " first of its stream" : " later one"));
            SessionRig rig;
            const RigClient player = rig.addClient();
            if (!stored) {
                ASSERT_EQ(SendMsgToClient(player.client, Message(2), RTMP_MSG_STREAM_BEGIN), 0);
                DrainBytes(player.peer);
            }
            RtmpSendPkt *message = Message(2);
            rig.log.clear();
            {
                const FailingAllocation failing(row.number);
                EXPECT_EQ(SendMsgToClient(player.client, message, RTMP_MSG_STREAM_BEGIN), -1);
            }
            EXPECT_EQ(rig.log.lines(), row.lines);
            EXPECT_TRUE(DrainBytes(player.peer).empty());
            EXPECT_EQ(player.client->SendPktCount, 1U); // as the reference it stays, or the older one does
            EXPECT_EQ(player.client->SendPktHead == message, stored);
            EXPECT_TRUE(IsFree(&player.client->WriteLock));
        }
    }
}

TEST(SendFailing, AReplyThatCouldNotBeSentIsNoReference)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    for (int number = 1; number <= 3; number++) {
        SCOPED_TRACE(number);
        RtmpSendPkt *message = Message(2);
        const FailingAllocation failing(number);
        EXPECT_EQ(SendOrForget(player.client, message, RTMP_MSG_STREAM_BEGIN), -1);
        EXPECT_EQ(player.client->SendPktHead, nullptr);
    }
}

TEST(SendFailing, AReplyWhoseTimeCannotBeMeasuredIsNotSent)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    player.client->PlayerFlags = RTMP_PLAYERS_ALL; // its media has a timeline of its own
    RtmpSendPkt *message = Message(2);
    rig.log.clear();
    const FailingCall failing(Call::MutexLock, 1, &player.client->SendStrmListLock);
    EXPECT_EQ(SendMsgToClient(player.client, message, RTMP_MSG_STREAM_BEGIN), -1);
    EXPECT_TRUE(DrainBytes(player.peer).empty());
    EXPECT_EQ(rig.log.count("Cannot lock send packet list"), 1U);
    EXPECT_TRUE(IsFree(&player.client->WriteLock));
}

TEST(SendFailing, AMessageThatCannotBeStoredIsFreed)
{
    for (const Call call : {Call::MutexLock, Call::MutexUnlock}) {
        SessionRig rig;
        const RigClient player = rig.addClient();
        RtmpSendPkt *message = Message(2);
        rig.log.clear();
        {
            const FailingCall failing(call, 2, &player.client->SendStrmListLock);
            EXPECT_EQ(SendMsgToClient(player.client, message, RTMP_MSG_STREAM_BEGIN), -1);
        }
        const std::string verb = call == Call::MutexLock ? "lock" : "unlock";
        EXPECT_EQ(rig.log.lines(), (Lines{"3 ERROR: AddSendPkt: Cannot " + verb + " send packet list",
                                          kSend + "Cannot add send packet in list"}));
        EXPECT_EQ(player.client->SendPktHead, nullptr);
    }
}

// ----------------------------------------------------------------------------------------------- replies

TEST(ProcessSendFailing, LocksOfStateChangesHaveTheirLinesAndTheStatesThatWereReached)
{
    const std::string lock = kProcess + "Cannot lock client list";
    const std::string unlock = kProcess + "Cannot unlock client list";
    const struct {
        const char *sentence;
        uint32_t kind;
        uint32_t state;
        uint8_t pauseFlag;
        Call call;
        int number; // of the client list lock
        uint32_t stateAfter;
        std::string line; // the last
    } rows[] = {
        {"play again, not stopped", RTMP_MSG_PLAY, 9, 0, Call::MutexLock, 1, 9, lock},
        {"play again, stopped", RTMP_MSG_PLAY, 9, 0, Call::MutexUnlock, 1, 11, unlock},
        {"play, not started", RTMP_MSG_PLAY, 6, 0, Call::MutexLock, 1, 6, lock},
        {"play, started", RTMP_MSG_PLAY, 6, 0, Call::MutexUnlock, 1, 9, unlock},
        {"unpause, not started", RTMP_MSG_PAUSE, 10, 1, Call::MutexLock, 1, 10, lock},
        {"unpause, started", RTMP_MSG_PAUSE, 10, 1, Call::MutexUnlock, 1, 9, unlock},
        {"unpause of who plays, not begun", RTMP_MSG_PAUSE, 9, 1, Call::MutexLock, 1, 9, lock},
        {"unpause of who plays, begun", RTMP_MSG_PAUSE, 9, 1, Call::MutexUnlock, 1, 9, unlock},
        {"unpause of who plays, done", RTMP_MSG_PAUSE, 9, 1, Call::MutexUnlock, 2, 9, unlock},
        {"delete, not done", RTMP_MSG_DELETE_STREAM, 9, 0, Call::MutexLock, 1, 9, lock},
        {"delete, done", RTMP_MSG_DELETE_STREAM, 9, 0, Call::MutexUnlock, 1, 12, unlock},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SessionRig rig;
        const RigClient player = rig.addClient(row.state);
        player.client->PauseFlag = row.pauseFlag;
        RtmpRecvPkt request = NoRequest();
        rig.log.clear();
        {
            const FailingCall failing(row.call, row.number, &rig.session->ClientListLock);
            EXPECT_EQ(ProcessSend(player.client, &request, row.kind), -1);
        }
        ASSERT_FALSE(rig.log.lines().empty());
        EXPECT_EQ(rig.log.lines().back(), row.line);
        EXPECT_EQ(ClientStateOf(player.client), row.stateAfter);
        EXPECT_TRUE(IsFree(&rig.session->ClientListLock));
    }
}

TEST(StartSequenceFailing, EveryAllocationEndsItWithTheLineOfItsMessage)
{
    const std::string who = "3 ERROR: StartSendingData: ";
    Lines reasons; // the last line of each failure, repetitions left out
    int number = 1;
    for (bool failed = true; failed; number++) {
        SCOPED_TRACE(number);
        SessionRig rig;
        const RigClient player = rig.addClient();
        RtmpRecvPkt request = NoRequest();
        rig.log.clear();
        {
            const FailingAllocation failing(number);
            failed = StartSendingData(player.client, &request) != 0;
        }
        if (failed) {
            ASSERT_FALSE(rig.log.lines().empty());
            const std::string reason = rig.log.lines().back();
            if (reasons.empty() || reasons.back() != reason) {
                reasons.push_back(reason);
            }
        }
        EXPECT_TRUE(IsFree(&player.client->WriteLock));
    }
    const std::string notGenerated = who + "Cannot generate RTMP response message";
    const std::string notSent = who + "Cannot send response message to client";
    EXPECT_EQ(reasons, (Lines{notGenerated, notSent, // NetStream.Play.Start
                              notGenerated, notSent, // |RtmpSampleAccess
                              notGenerated, notSent, // onMetaData
                              who + "Cannot generate avcc data message",
                              who + "Cannot send avcc data message to client",
                              who + "Cannot generate AAC config message",
                              who + "Cannot send AAC config message to client"}));
}

TEST(ProcessSendFailing, EveryAllocationOfEverySequenceLeavesTheStateAndSaysWhy)
{
    const std::string start = kProcess + "Cannot start sending data";
    const struct {
        const char *sentence;
        uint32_t kind;
        uint32_t state;
        uint8_t pauseFlag;
        uint32_t stateAfter;
        Lines lastLines;
    } rows[] = {
        {"play",
         RTMP_MSG_PLAY,
         6,
         0,
         6,
         {kProcess + "Cannot generate RTMP response message",
          kProcess + "Cannot send response message to client", start}},
        {"play again",
         RTMP_MSG_PLAY,
         9,
         0,
         11,
         {kProcess + "Cannot generate RTMP response message",
          kProcess + "Cannot send response message to client", start}},
        {"pause",
         RTMP_MSG_PAUSE,
         9,
         0,
         10,
         {kProcess + "Cannot generate PAUSE message", kProcess + "Cannot send PAUSE message to client"}},
        {"unpause",
         RTMP_MSG_PAUSE,
         10,
         1,
         10,
         {kProcess + "Cannot generate RTMP response message",
          kProcess + "Cannot send response message to client", kProcess + "Cannot generate PAUSE message",
          kProcess + "Cannot send PAUSE message to client", start}},
        {"unpause while playing",
         RTMP_MSG_PAUSE,
         9,
         1,
         9,
         {kProcess + "Cannot generate RTMP response message",
          kProcess + "Cannot send response message to client", kProcess + "Cannot generate PAUSE message",
          kProcess + "Cannot send PAUSE message to client", start}},
    };
    for (const auto &row : rows) {
        Lines seen;
        bool failed = true;
        for (int number = 1; failed; number++) {
            SCOPED_TRACE(std::string(row.sentence) + ", allocation " + std::to_string(number));
            SessionRig rig;
            const RigClient player = rig.addClient(row.state);
            player.client->PauseFlag = row.pauseFlag;
            RtmpRecvPkt request = NoRequest();
            rig.log.clear();
            {
                const FailingAllocation failing(number);
                failed = ProcessSend(player.client, &request, row.kind) != 0;
            }
            if (failed) {
                EXPECT_EQ(ClientStateOf(player.client), row.stateAfter);
                seen.push_back(rig.log.lines().back());
            }
        }
        for (const std::string &line : row.lastLines) {
            EXPECT_NE(std::find(seen.begin(), seen.end(), line), seen.end()) << row.sentence << ": " << line;
        }
        for (const std::string &line : seen) {
            EXPECT_NE(std::find(row.lastLines.begin(), row.lastLines.end(), line), row.lastLines.end())
                << row.sentence << ": " << line;
        }
    }
}

TEST(ErrorReplyFailing, AReplyWithoutMemoryIsSaidAndEndsThePair)
{
    const std::string who = "3 ERROR: ServeClientForError: ";
    const std::string notGenerated = who + "Cannot generate RTMP response message";
    const std::string notSent = who + "Error occured while sending error response";
    for (const int code : {RTMP_ERR_STREAM_NOT_FOUND, RTMP_ERR_UNSUPPORTED_MSG}) {
        Lines seen;
        for (int number = 1;; number++) {
            SCOPED_TRACE(std::to_string(code) + ", allocation " + std::to_string(number));
            SessionRig rig;
            const RigClient player = rig.addClient(CLIENT_STATE_CREATESTREAM_DONE);
            RtmpRecvPkt request = NoRequest();
            rig.log.clear();
            {
                const FailingAllocation failing(number);
                ServeClientForError(player.client, &request, code, RTMP_MSG_PLAY);
            }
            if (rig.log.lines().empty()) {
                break;
            }
            seen.push_back(rig.log.lines().back());
            EXPECT_TRUE(seen.back() == notGenerated || seen.back() == notSent) << seen.back();
            EXPECT_EQ(rig.log.count("ServeClientForError"), 1U);
        }
        EXPECT_EQ(std::count(seen.begin(), seen.end(), notSent),
                  code == RTMP_ERR_STREAM_NOT_FOUND ? 6 : 3); // header, its bytes, pieces of each reply
    }
}

TEST(DispatchFailing, ALockOfTheClientListRefusesTheMessage)
{
    for (const uint32_t type : {RTMP_TYPE_SET_CHUNK_SIZE, RTMP_TYPE_WINDOW_ACK_SIZE}) {
        for (const Call call : {Call::MutexLock, Call::MutexUnlock}) {
            SessionRig rig;
            const RigClient player = rig.addClient();
            uint8_t payload[] = {0, 0, 16, 0};
            RtmpRecvPkt request = NoRequest();
            request.MsgTypeId = type;
            request.MsgLength = sizeof payload;
            request.PayloadData = payload;
            uint32_t kind = 0;
            rig.log.clear();
            {
                const FailingCall failing(call, 1, &rig.session->ClientListLock);
                EXPECT_EQ(ParseRequestMsg(player.client, &request, &kind), -1);
            }
            const std::string name =
                type == RTMP_TYPE_SET_CHUNK_SIZE ? "SET CHUNK SIZE" : "WIN ACKNOWLEDGEMENT SIZE";
            const std::string verb = call == Call::MutexLock ? "lock" : "unlock";
            EXPECT_EQ(rig.log.lines(),
                      (Lines{"6 INFO: ParseRequestMsg: Received Protocol control message: " + name,
                             "3 ERROR: ParseRequestMsg: Cannot " + verb + " Rtmp client list"}));
        }
    }
}

TEST(DispatchFailing, ALockOfTheReceiveListRefusesAnAbort)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    player.client->PlayerFlags = RTMP_PLAYERS_ALL;
    uint8_t payload[] = {0, 0, 0, 3};
    RtmpRecvPkt request = NoRequest();
    request.MsgTypeId = RTMP_TYPE_ABORT;
    request.MsgLength = sizeof payload;
    request.PayloadData = payload;
    uint32_t kind = 0;
    rig.log.clear();
    const FailingCall failing(Call::MutexLock, 1, &player.client->RecvStrmListLock);
    EXPECT_EQ(ParseRequestMsg(player.client, &request, &kind), -1);
    EXPECT_EQ(rig.log.lines(), (Lines{"6 INFO: ParseRequestMsg: Received Protocol control message: ABORT",
                                      "3 ERROR: AbandonMessage: Cannot lock receive packet list"}));
}

TEST(DispatchFailing, AMessageOfWhichThereIsNoRoomForTheRestIsRefused)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    RtmpRecvPkt request = NoRequest();
    request.MsgTypeId = RTMP_TYPE_ACKNOWLEDGEMENT;
    request.MsgLength = 100;
    request.PayloadRoom = 4;
    request.PayloadData = static_cast<uint8_t *>(calloc(1, 4));
    uint32_t kind = 0;
    rig.log.clear();
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(ParseRequestMsg(player.client, &request, &kind), -1);
    }
    EXPECT_EQ(rig.log.lines(),
              Lines{"3 ERROR: ParseRequestMsg: Cannot allocate memory to tmpRecvStrmPkt->PayloadData"});
    EXPECT_EQ(ParseRequestMsg(player.client, &request, &kind), 0);
    free(request.PayloadData);
}

// ----------------------------------------------------------------------------------------------- senders

TEST(SenderFailing, EveryAllocationOfThePacketMonitorIsNamed)
{
    SessionRig rig(4096, RTMP_MEDIA_NONE);
    RtmpSession *session = RtmpSessionCreate(rig.server, "bare", nullptr);
    const char *const reasons[] = {"Not enough memory for rtmpQueue", "Not enough memory for AudioBuffer",
                                   "Not enough memory for bandwidth monitor",
                                   "Not enough memory for bandwidth monitor queue"};
    for (int number = 1; number <= 4; number++) {
        SCOPED_TRACE(number);
        rig.log.clear();
        const FailingAllocation failing(number);
        EXPECT_EQ(RtmpSenderSettings(session, 0, 0, 0, 1, 0, 5, 10, 10), 0);
        EXPECT_EQ(rig.log.lines(), (Lines{std::string("3 ERROR: RtmpQueueInit: ") + reasons[number - 1],
                                          "3 ERROR: RtmpMonitorInit: Error: Failed to init queue"}));
        EXPECT_EQ(session->Monitor, nullptr);
    }
    const FailingAllocation counted(0);
    EXPECT_EQ(RtmpSenderSettings(session, 0, 0, 0, 1, 0, 5, 10, 10), 0);
    EXPECT_EQ(counted.seen(), 4);
}

TEST(SenderFailing, StoredSettingsWithoutMemoryKeepTheEarlierOnes)
{
    SessionRig rig;
    const auto debug = [&] { return RtmpDebugSettings(rig.session, 1, 0, 1, "/nowhere", 5); };
    const auto bitrate = [&] {
        return RtmpAdaptiveBitrateSettings(rig.session, 1, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    };
    ASSERT_EQ(debug(), 0);
    ASSERT_EQ(bitrate(), 0);
    const auto *earlierDebug = rig.session->Monitor->DebugSettings;
    const auto *earlierAbr = rig.session->Monitor->AbrSettings;
    rig.log.clear();
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(debug(), 0);
    }
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(bitrate(), 0);
    }
    EXPECT_EQ(rig.log.lines(),
              (Lines{"3 ERROR: RtmpMonitorDebugInit: Not enough memory for Debug",
                     "3 ERROR: RtmpMonitorAdaptiveBitrateInit: Not enough memory for adaptive bitrate"}));
    EXPECT_EQ(rig.session->Monitor->DebugSettings, earlierDebug);
    EXPECT_EQ(rig.session->Monitor->AbrSettings, earlierAbr);
}

TEST(SenderFailing, EveryAllocationOfTheThreadedSenderIsNamed)
{
    SessionRig rig(4096, RTMP_MEDIA_NONE);
    RtmpSession *session = RtmpSessionCreate(rig.server, "bare", nullptr);
    const std::string who = "3 ERROR: RtmpThreadedQueueInit: ";
    Lines reasons;
    for (int number = 1; session->Queue == nullptr; number++) {
        SCOPED_TRACE(number);
        rig.log.clear();
        const FailingAllocation failing(number);
        EXPECT_EQ(RtmpSenderSettings(session, RTMP_SENDER_THREADED, 0, 0, 1, 0, 5, 10, 10), 0);
        if (session->Queue == nullptr) {
            ASSERT_EQ(rig.log.lines().size(), 1U);
            if (reasons.empty() || reasons.back() != rig.log.lines()[0]) {
                reasons.push_back(rig.log.lines()[0]);
            }
        }
    }
    EXPECT_EQ(reasons, (Lines{who + "Not enough memory for rtmpQueue",
                              who + "Not enough memory for Audio rtmpQueueBuffer",
                              who + "Not enough memory for Video rtmpQueueBuffer"}));
}

TEST(SenderFailing, ARingWhoseLocksCannotBeMadeIsNotMade)
{
    for (const int number : {1, 2}) {
        const FailingCall failing(Call::MutexInit, number);
        EXPECT_EQ(RtmpQueueBufferCreate(10), nullptr) << number;
    }
}

TEST(SenderFailing, ABandwidthMonitorWithoutMemoryIsSaidAndFramesGoOn)
{
    SessionRig rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    for (int number = 1; number <= 2; number++) {
        rig.log.clear();
        const FailingAllocation failing(number);
        EXPECT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0);
        EXPECT_EQ(rig.log.lines(),
                  Lines{"3 ERROR: RtmpThreadedQueueBWMInit: Not enough memory for Bandwidth Monitor"});
        EXPECT_EQ(rig.session->Queue->Bwm, nullptr);
    }
    EXPECT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0);
    EXPECT_NE(rig.session->Queue->Bwm, nullptr);
}

TEST(SenderFailing, AnAudioFrameWithoutMemoryIsDroppedAndTheStreamGoesOn)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(100);
    const auto send = [&](uint64_t time, int64_t mediaType) {
        return RtmpSendData(rig.session, frame.data(), 100, 0, 0, time, mediaType);
    };
    rig.log.clear();
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(send(10, RTMP_FRAME_AUDIO), 0);
    }
    EXPECT_EQ(rig.log.lines(), Lines{"3 ERROR: copyRtmpPacketToBuffer: Can not calloc for buffer"});
    EXPECT_EQ(rig.session->Monitor->AudioCount, 0);
    EXPECT_EQ(send(20, RTMP_FRAME_AUDIO), 0);
    EXPECT_EQ(rig.session->Monitor->AudioCount, 1);
    EXPECT_EQ(send(40, RTMP_FRAME_VIDEO), 0);
    EXPECT_FALSE(DrainBytes(player.peer).empty());
}

TEST(SenderFailing, TheSessionListsLockHasItsCode)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(100);
    for (const Call call : {Call::MutexLock, Call::MutexUnlock}) {
        rig.log.clear();
        {
            const FailingCall failing(call, 1, &rig.server->LiveSessionListLock);
            EXPECT_EQ(RtmpSendData(rig.session, frame.data(), 100, 0, 0, 10, RTMP_FRAME_VIDEO), -78);
        }
        const std::string verb = call == Call::MutexLock ? "lock" : "unlock";
        EXPECT_EQ(rig.log.lines(),
                  (Lines{"3 ERROR: RtmpMonitorSendData: Cannot " + verb + " Rtmp session list",
                         "3 ERROR: RtmpSendData: Sending message to connected clients failed"}));
        EXPECT_EQ(DrainBytes(player.peer).empty(), call == Call::MutexLock);
        EXPECT_TRUE(IsFree(&rig.server->LiveSessionListLock));
    }
}

TEST(SenderFailing, EachLockOfTheSenderThreadEndsItAndAResetStartsItAnew)
{
    SessionRig rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(100);
    RtmpThreadedQueue *queue = rig.session->Queue;
    for (RtmpMutex *lock :
         {&queue->VideoBuffer->Lock, &queue->AudioBuffer->Lock, &rig.server->LiveSessionListLock}) {
        rig.log.clear();
        calls::failAlways(Call::MutexLock, lock);
        EXPECT_EQ(RtmpSendData(rig.session, frame.data(), 100, 0, 0, 10, RTMP_FRAME_VIDEO), 0);
        EXPECT_TRUE(
            rig.log.waitFor("INFO: RtmpSenderThread: ====>Sending message to connected clients failed"));
        calls::failNever(Call::MutexLock);
        EXPECT_TRUE(DrainBytes(player.peer).empty());
        EXPECT_TRUE(IsFree(lock));
        EXPECT_EQ(RtmpThreadedQueueReset(rig.session), 0);
    }
    EXPECT_EQ(RtmpSendData(rig.session, frame.data(), 100, 0, 0, 50, RTMP_FRAME_VIDEO), 0);
    EXPECT_EQ(ReadBytes(player.peer, 12 + 5 + 100).size(), 12U + 5 + 100);
}
