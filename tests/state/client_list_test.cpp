#include "state/client_list.h"
#include "support/session_rig.h"

namespace {

// The chain from the head, as far as it goes.
std::vector<RtmpClient *> Chain(const RtmpSession *session)
{
    std::vector<RtmpClient *> out;
    for (RtmpClient *client = session->ClientListHead; client != nullptr; client = client->NextClient) {
        out.push_back(client);
    }
    return out;
}

using Clients = std::vector<RtmpClient *>;

} // namespace

TEST(ClientList, ClientsStandInTheOrderInWhichTheyJoined)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    EXPECT_EQ(Chain(rig.session), (Clients{a, b}));
    EXPECT_EQ(rig.session->ClientListTail, b);
    EXPECT_EQ(rig.session->ClientCount, 2);
    EXPECT_EQ(b->PrevClient, a);
}

TEST(ClientList, TheOnlyClientThatLeavesEmptiesTheList)
{
    SessionRig rig;
    rig.removeClient(rig.addClient().client);
    EXPECT_EQ(rig.session->ClientListHead, nullptr);
    EXPECT_EQ(rig.session->ClientListTail, nullptr);
    EXPECT_EQ(rig.session->ClientCount, 0);
}

TEST(ClientList, TheFirstOfTwoThatLeavesMakesTheSecondHeadAndTail)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    rig.removeClient(a);
    EXPECT_EQ(rig.session->ClientListHead, b);
    EXPECT_EQ(rig.session->ClientListTail, b);
    EXPECT_EQ(b->PrevClient, nullptr);
}

TEST(ClientList, TheFirstOfThreeThatLeavesMovesHeadAndTailToTheSecond)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    RtmpClient *c = rig.addClient().client;
    rig.removeClient(a);
    EXPECT_EQ(rig.session->ClientListHead, b);
    EXPECT_EQ(rig.session->ClientListTail, b);
    EXPECT_EQ(Chain(rig.session), (Clients{b, c}));
}

TEST(ClientList, ANewcomerBehindTheMovedTailDropsThoseBehindItFromTheChain)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    rig.addClient();
    rig.removeClient(a);
    RtmpClient *d = rig.addClient().client;
    EXPECT_EQ(Chain(rig.session), (Clients{b, d}));
    EXPECT_EQ(rig.session->ClientListTail, d);
    EXPECT_EQ(rig.session->ClientCount, 3);
}

TEST(ClientList, ADroppedClientThatLeavesCutsOffNobody)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    RtmpClient *c = rig.addClient().client;
    rig.removeClient(a);
    RtmpClient *d = rig.addClient().client;
    EXPECT_EQ(PlaceInChain(rig.session, c), CHAIN_LAST);
    rig.removeClient(c);
    EXPECT_EQ(Chain(rig.session), (Clients{b, d}));
    EXPECT_EQ(rig.session->ClientListTail, d);
    EXPECT_EQ(rig.session->ClientCount, 2);
}

TEST(ClientList, ADroppedClientOutlivesTheNeighboursItsLinksNamed)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    RtmpClient *c = rig.addClient().client;
    RtmpClient *d = rig.addClient().client;
    rig.removeClient(a);
    RtmpClient *e = rig.addClient().client; // c and d fall out
    rig.removeClient(b);
    EXPECT_EQ(c->PrevClient, nullptr);
    EXPECT_EQ(Chain(rig.session), (Clients{e}));
    rig.removeClient(c);
    EXPECT_EQ(d->PrevClient, nullptr);
    rig.removeClient(e);
    EXPECT_EQ(rig.session->ClientListHead, nullptr);
    EXPECT_EQ(rig.session->ClientCount, 1);
    EXPECT_EQ(FirstMember(rig.session), d);
    rig.removeClient(d);
    EXPECT_EQ(FirstMember(rig.session), nullptr);
}

TEST(ClientList, AMiddleClientThatLeavesJoinsItsNeighbours)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    RtmpClient *b = rig.addClient().client;
    RtmpClient *c = rig.addClient().client;
    rig.removeClient(b);
    EXPECT_EQ(Chain(rig.session), (Clients{a, c}));
    EXPECT_EQ(c->PrevClient, a);
    EXPECT_EQ(rig.session->ClientListTail, c);
}

TEST(ClientList, AClientAddedTwiceCountsTwiceAndIsLinkedOnce)
{
    SessionRig rig;
    RtmpClient *a = rig.addClient().client;
    EXPECT_EQ(AddClientInSession(rig.session, a), 0);
    EXPECT_EQ(rig.session->ClientCount, 2);
    EXPECT_EQ(Chain(rig.session), (Clients{a}));
    rig.removeClient(a);
    EXPECT_EQ(rig.session->ClientListHead, nullptr);
}
