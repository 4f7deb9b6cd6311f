// The handshake of a publisher that ends in the middle: what the log says of each step.
#include "publisher_fixture.h"

#include <sys/socket.h>

using namespace publisher;
using namespace wire;

namespace {

constexpr size_t kPlainPacket = 1536;

struct CutStep {
    const char *name;
    const char *line;
    std::function<void(Rig &)> service; // its part; what the host's end can still do ends with it
};

void ReadC0AndC1(Rig &rig)
{
    rig.service->socket.receive(1 + kPlainPacket);
}

const CutStep kCutSteps[] = {
    {"BeforeC0", "Cannot send C0 and C1 to the service",
     [](Rig &rig) {
         shutdown(rig.socket, SHUT_WR);
         rig.start();
     }},
    {"BeforeS0", "Cannot read S0 and S1 from the service",
     [](Rig &rig) {
         rig.start();
         ReadC0AndC1(rig);
         rig.service->socket.leave();
     }},
    {"WithinS1", "Cannot read S0 and S1 from the service",
     [](Rig &rig) {
         rig.start();
         ReadC0AndC1(rig);
         rig.service->socket.send(Bytes(kPlainPacket, 3)); // S0, and all of S1 but its last byte
         rig.service->socket.leave();
     }},
    {"BeforeC2", "Cannot send C2 to the service",
     [](Rig &rig) {
         rig.start();
         ReadC0AndC1(rig);
         shutdown(rig.socket, SHUT_WR);
         rig.service->socket.send(Bytes(1 + 2 * kPlainPacket, 3));
     }},
    {"BeforeS2", "Cannot read S2 from the service",
     [](Rig &rig) {
         rig.start();
         ReadC0AndC1(rig);
         rig.service->socket.send(Bytes(1 + kPlainPacket, 3));
         rig.service->socket.receive(kPlainPacket);
         rig.service->socket.leave();
     }},
};

class PublisherHandshakeIsCut : public testing::TestWithParam<CutStep> {};

} // namespace

TEST_P(PublisherHandshakeIsCut, AndTheLogNamesTheStep)
{
    Rig rig;
    GetParam().service(rig);
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
    EXPECT_EQ(rig.log.count(std::string("3 ERROR: RtmpPublisherHandshake: ") + GetParam().line), 1U);
    EXPECT_EQ(rig.log.count("ERROR: RtmpPublisherHandshake: "), 1U);
}

INSTANTIATE_TEST_SUITE_P(Steps, PublisherHandshakeIsCut, testing::ValuesIn(kCutSteps),
                         [](const testing::TestParamInfo<CutStep> &row) {
                             return std::string(row.param.name);
                         });

// A ping of the service while the publisher waits for an answer: nobody else writes, and nobody else would
// notice.
TEST(PublisherIsPinged, AnAnswerThatCannotBeSentIsLogged)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Handshake);
    shutdown(rig.socket, SHUT_WR);
    rig.service->pingRequest(7);
    EXPECT_TRUE(rig.log.waitFor("3 ERROR: RtmpPublisherServe: Cannot send a message to the service"));
    rig.service->socket.leave();
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
}
