// The ways of client records, of their packet lists, and of the look-ups.
#include "failing/every_call_rig.h"
#include "state/client.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace every_call {
namespace {

RtmpRecvPkt *NewReceived(uint32_t chunkStream = 3)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = chunkStream;
    return pkt;
}

RtmpSendPkt *NewSent(uint32_t chunkStream = 3)
{
    RtmpSendPkt *pkt = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    pkt->ChunkStreamId = chunkStream;
    return pkt;
}

// A client that has joined nothing, with a packet in each list where they are filled.
struct Lists {
    explicit Lists(Trial &trial, bool areFilled = true) : host(trial), client(host.alone().client)
    {
        if (areFilled) {
            EXPECT_EQ(AddRecvPkt(client, received = NewReceived()), 0);
            EXPECT_EQ(AddSendPkt(client, sent = NewSent()), 0);
        }
    }
    Host host;
    RtmpClient *client;
    RtmpRecvPkt *received = nullptr;
    RtmpSendPkt *sent = nullptr;
};

void CreateClient(Trial &trial)
{
    Host host(trial);
    RtmpClient *client = nullptr;
    trial.run([&] {
        client = CreateNewRtmpClient(host.server, RTMP_CONN_RTMP, -1, "127.0.0.1", 0, nullptr);
        return client != nullptr ? 0 : kNull;
    });
    FreeClientRecord(client);
}

// A client with something in both lists; what DestroyRtmpClient refuses is freed as it says.
RtmpClient *UsedClient(Host &host, bool joins)
{
    RtmpClient *client = CreateNewRtmpClient(host.server, RTMP_CONN_RTMP, -1, "127.0.0.1", 0, nullptr);
    EXPECT_EQ(joins ? AddClientInSession(host.session, client) : 0, 0);
    EXPECT_EQ(AddRecvPkt(client, NewReceived()), 0);
    EXPECT_EQ(AddSendPkt(client, NewSent()), 0);
    return client;
}

void DestroyClient(Trial &trial, bool joins)
{
    Host host(trial);
    RtmpClient *client = UsedClient(host, joins);
    trial.run([&] { return DestroyRtmpClient(client); },
              [&] {
                  FreeClientRecord(client);
                  return DestroyRtmpClient(UsedClient(host, joins));
              });
    EXPECT_EQ(host.session->ClientCount, 0);
}

void AddToSession(Trial &trial, Road road)
{
    Host host(trial, {.road = road});
    RtmpClient *client = host.alone().client;
    trial.run([&] { return AddClientInSession(host.session, client); });
}

void AddReceived(Trial &trial, bool replaces)
{
    Lists lists(trial, replaces);
    RtmpRecvPkt *pkt = NewReceived();
    trial.run([&] { return AddRecvPkt(lists.client, pkt); });
    EXPECT_EQ(GetRecvPktFromList(lists.client, 3), pkt);
}

void AddSent(Trial &trial, bool replaces)
{
    Lists lists(trial, replaces);
    RtmpSendPkt *pkt = NewSent();
    trial.run([&] { return AddSendPkt(lists.client, pkt); });
    EXPECT_EQ(GetSendPktFromList(lists.client, 3), pkt);
}

// An unlock that fails comes behind the removal: the packet has gone all the same.
void RemoveReceived(Trial &trial, bool all)
{
    Lists lists(trial);
    trial.run([&] { return RemoveRecvPkt(lists.client, all ? nullptr : lists.received); },
              [&] {
                  RtmpRecvPkt *another = NewReceived(4);
                  EXPECT_EQ(AddRecvPkt(lists.client, another), 0);
                  return RemoveRecvPkt(lists.client, all ? nullptr : another);
              });
}

void RemoveSent(Trial &trial, bool all)
{
    Lists lists(trial);
    trial.run([&] { return RemoveSendPkt(lists.client, all ? nullptr : lists.sent); },
              [&] {
                  RtmpSendPkt *another = NewSent(4);
                  EXPECT_EQ(AddSendPkt(lists.client, another), 0);
                  return RemoveSendPkt(lists.client, all ? nullptr : another);
              });
}

// A look at the session of a host that has one client.
void LookAt(Trial &trial, int (*look)(const Host &host, RtmpClient *client))
{
    Host host(trial);
    RtmpClient *client = host.joined().client;
    trial.run([&] { return look(host, client); });
}

} // namespace

std::vector<Scenario> ListScenarios()
{
    const std::vector<int> any = {-1};
    const auto without = std::vector<int>{}; // nothing on its way can fail
    return {
        {"CreateNewRtmpClient", "plain", {kNull}, CreateClient},
        {"DestroyRtmpClient", "in a session", any, [](Trial &trial) { DestroyClient(trial, true); }},
        {"DestroyRtmpClient", "in none", any, [](Trial &trial) { DestroyClient(trial, false); }},
        {"AddClientInSession", "exact road", any, [](Trial &trial) { AddToSession(trial, Road::Exact); }},
        {"AddClientInSession", "steady road", any, [](Trial &trial) { AddToSession(trial, Road::Steady); }},
        {"AddRecvPkt", "the first", any, [](Trial &trial) { AddReceived(trial, false); }},
        {"AddRecvPkt", "in place of another", any, [](Trial &trial) { AddReceived(trial, true); }},
        {"AddSendPkt", "the first", any, [](Trial &trial) { AddSent(trial, false); }},
        {"AddSendPkt", "in place of another", any, [](Trial &trial) { AddSent(trial, true); }},
        {"RemoveRecvPkt", "one", any, [](Trial &trial) { RemoveReceived(trial, false); }},
        {"RemoveRecvPkt", "all", any, [](Trial &trial) { RemoveReceived(trial, true); }},
        {"RemoveSendPkt", "one", any, [](Trial &trial) { RemoveSent(trial, false); }},
        {"RemoveSendPkt", "all", any, [](Trial &trial) { RemoveSent(trial, true); }},
        {"GetRecvPktFromList",
         "one that is there",
         {kNull},
         [](Trial &trial) {
             Lists lists(trial);
             trial.run([&] { return GetRecvPktFromList(lists.client, 3) != nullptr ? 0 : kNull; });
         }},
        {"GetSendPktFromList",
         "one that is there",
         {kNull},
         [](Trial &trial) {
             Lists lists(trial);
             trial.run([&] { return GetSendPktFromList(lists.client, 3) != nullptr ? 0 : kNull; });
         }},
        {"IsRecvStrmPktExists", "one that is there", any,
         [](Trial &trial) {
             Lists lists(trial);
             trial.run([&] { return IsRecvStrmPktExists(lists.client, lists.received); });
         }},
        {"ValidateRtmpStreamName", "one that is there", any,
         [](Trial &trial) {
             LookAt(trial, [](const Host &, RtmpClient *client) {
                 RtmpSession *found = nullptr;
                 return ValidateRtmpStreamName(client, 4, "live", &found);
             });
         }},
        {"ValidateRtmpSessionHandle", "one that is there", without,
         [](Trial &trial) {
             LookAt(trial, [](const Host &host, RtmpClient *) {
                 return ValidateRtmpSessionHandle(host.server, host.session);
             });
         }},
        {"IsSessionNameExists", "one that is there", without,
         [](Trial &trial) {
             LookAt(trial,
                    [](const Host &host, RtmpClient *) { return IsSessionNameExists(host.server, "live"); });
         }},
        {"IsAnyClientConnected", "one", without,
         [](Trial &trial) {
             LookAt(trial, [](const Host &host, RtmpClient *) { return IsAnyClientConnected(host.session); });
         }},
        {"RtmpLogPrint", "a line", without,
         [](Trial &trial) {
             trial.run([&] {
                 RtmpLogPrint(trial.logger(), RTMP_LOG_INFO, "INFO: a line\n");
                 return 0;
             });
         }},
        {"HandleSignal", "once", without,
         [](Trial &trial) {
             trial.run([] {
                 (void)HandleSignal(); // the disposition of before
                 return 0;
             });
         }},
    };
}

} // namespace every_call
