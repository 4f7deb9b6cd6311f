// The values of the public constants: hosts compare with them, and some were compiled long ago.
#include <rtmpcast/rtmpcast.h>

#include <gtest/gtest.h>
#include <vector>

namespace {

struct Constant {
    const char *name;
    int64_t value, wanted;
};

#define IS(name, wanted)                                                                                     \
    {                                                                                                        \
#name, static_cast < int64_t>(name), wanted                                                          \
    }

void ExpectAll(const std::vector<Constant> &constants)
{
    for (const Constant &constant : constants) {
        EXPECT_EQ(constant.value, constant.wanted) << constant.name;
    }
}

TEST(Constants, StatusCodes)
{
    ExpectAll({IS(RTMP_OK, 0),
               IS(RTMP_FAILED, -1),
               IS(RTMP_ERR_IP_ADDRESS, -73),
               IS(RTMP_ERR_LOCK_DESTROY, -76),
               IS(RTMP_ERR_UNLOCK, -77),
               IS(RTMP_ERR_LOCK, -78),
               IS(RTMP_ERR_LOCK_INIT, -79),
               IS(RTMP_ERR_NO_CLIENT, -82),
               IS(RTMP_ERR_THREAD_JOIN, -83),
               IS(RTMP_ERR_THREAD_CREATE, -84),
               IS(RTMP_ERR_LISTEN, -85),
               IS(RTMP_ERR_BIND, -86),
               IS(RTMP_ERR_SOCKET, -87),
               IS(RTMP_ERR_SESSION_EXISTS, -88),
               IS(RTMP_ERR_MEMORY, -89),
               IS(RTMP_ERR_META_DATA, -91),
               IS(RTMP_ERR_VIDEO_INFO, -92),
               IS(RTMP_ERR_AUDIO_INFO, -93),
               IS(RTMP_ERR_NO_MEDIA_INFO, -97),
               IS(RTMP_ERR_INVALID_ARGUMENT, -99),
               IS(RTMP_ERR_UNSUPPORTED_MSG, -110),
               IS(RTMP_ERR_STREAM_NOT_FOUND, -111)});
}

TEST(Constants, MessageKinds)
{
    ExpectAll({IS(RTMP_MSG_RESULT, 0),
               IS(RTMP_MSG_ERROR, 1),
               IS(RTMP_MSG_CONNECT, 2),
               IS(RTMP_MSG_ON_STATUS, 3),
               IS(RTMP_MSG_CREATE_STREAM, 4),
               IS(RTMP_MSG_ON_FC_PUBLISH, 7),
               IS(RTMP_MSG_PLAY, 9),
               IS(RTMP_MSG_PAUSE, 10),
               IS(RTMP_MSG_ON_BW_DONE, 11),
               IS(RTMP_MSG_PLAY_RESET, 12),
               IS(RTMP_MSG_PLAY_START, 13),
               IS(RTMP_MSG_PLAY_STOP, 14),
               IS(RTMP_MSG_STREAM_NOT_FOUND, 15),
               IS(RTMP_MSG_CONNECT_FAILED, 16),
               IS(RTMP_MSG_DELETE_STREAM, 17),
               IS(RTMP_MSG_SET_CHALLENGE, 18),
               IS(RTMP_MSG_ON_CLIENT_LOGIN, 20),
               IS(RTMP_MSG_CHECK_BW, 21),
               IS(RTMP_MSG_USTREAM_PING, 22),
               IS(RTMP_MSG_USTREAM_PONG, 23),
               IS(RTMP_MSG_RECORD_STARTED, 30),
               IS(RTMP_MSG_RECORD_ERROR, 31),
               IS(RTMP_MSG_RECORD_READY, 32),
               IS(RTMP_MSG_RECORD_TIMER_WARNING, 33),
               IS(RTMP_MSG_RECORD_LIMIT_EXCEEDED, 34),
               IS(RTMP_MSG_RECORD_SAVED, 35),
               IS(RTMP_MSG_STREAM_BEGIN, 36),
               IS(RTMP_MSG_SET_BUFFER_LENGTH, 39),
               IS(RTMP_MSG_PING_REQUEST, 41),
               IS(RTMP_MSG_PING_RESPONSE, 42),
               IS(RTMP_MSG_SET_CHUNK_SIZE, 43),
               IS(RTMP_MSG_ABORT, 44),
               IS(RTMP_MSG_ACKNOWLEDGEMENT, 45),
               IS(RTMP_MSG_WINDOW_ACK_SIZE, 46),
               IS(RTMP_MSG_SET_PEER_BANDWIDTH, 47),
               IS(RTMP_MSG_DATA_START, 48),
               IS(RTMP_MSG_META_DATA, 49),
               IS(RTMP_MSG_SAMPLE_ACCESS, 50),
               IS(RTMP_MSG_VIDEO, 51),
               IS(RTMP_MSG_AUDIO, 52),
               IS(RTMP_MSG_UNSUPPORTED, 53),
               IS(RTMP_MSG_CAPTION, 54),
               IS(RTMP_MSG_SEEK, 55),
               IS(RTMP_MSG_PUBLISH, 56),
               IS(RTMP_MSG_CONNECT_REJECTED, 57)});
}

TEST(Constants, FlagsOfPlayers)
{
    ExpectAll({IS(RTMP_PLAYERS_EXACT, 0), IS(RTMP_PLAYERS_COMMANDS, 1), IS(RTMP_PLAYERS_HANDSHAKE, 2),
               IS(RTMP_PLAYERS_VERSION, 4), IS(RTMP_PLAYERS_DESCRIPTION, 8), IS(RTMP_PLAYERS_TIMELINE, 16),
               IS(RTMP_PLAYERS_CHUNKS_IN, 32), IS(RTMP_PLAYERS_CHUNKS_OUT, 64), IS(RTMP_PLAYERS_CONNECT, 128),
               IS(RTMP_PLAYERS_STREAM_NAME, 256), IS(RTMP_PLAYERS_KEY_FRAME, 512),
               IS(RTMP_PLAYERS_ACKNOWLEDGE, 1024), IS(RTMP_PLAYERS_ALL, 2047)});
}

TEST(Constants, StatesAndModes)
{
    ExpectAll({IS(CLIENT_STATE_INIT, 0), IS(CLIENT_STATE_HANDSHAKE_DONE, 2), IS(CLIENT_STATE_CONNECT_DONE, 4),
               IS(CLIENT_STATE_CREATESTREAM_DONE, 6), IS(CLIENT_STATE_PLAY_DONE, 9),
               IS(CLIENT_STATE_PAUSE_DONE, 10), IS(CLIENT_STATE_REPLAY, 11),
               IS(CLIENT_STATE_DELETESTREAM, 12), IS(CLIENT_STATE_CLOSED, 13), IS(CLIENT_STATE_EXIT, 14)});
    ExpectAll({IS(RTMP_CONN_RTMP, 0), IS(RTMP_CONN_RTMPT, 1), IS(RTMP_FRAME_VIDEO, 0),
               IS(RTMP_FRAME_AUDIO, 1), IS(RTMP_MEDIA_AUDIO, 0), IS(RTMP_MEDIA_VIDEO, 1),
               IS(RTMP_MEDIA_BOTH, 2), IS(RTMP_MEDIA_NONE, 3), IS(RTMP_SENDER_THREADED, 1),
               IS(RTMP_LOG_ERROR, 3), IS(RTMP_LOG_INFO, 6)});
}

} // namespace
