#include "message/recv_index.h"

// The index is a tree of the packets themselves, so that it needs no memory of its own. Below a packet at
// depth n hang those whose id has bit n clear (Branch[0]) and set (Branch[1]), in no other order: any of them
// can take the packet's place.

namespace {

// LeafBelow returns a packet below `pkt` that has none below itself; null when there is nothing below.
RtmpRecvPkt *LeafBelow(RtmpRecvPkt *pkt)
{
    RtmpRecvPkt *leaf = nullptr;
    RtmpRecvPkt *below = pkt->Branch[0] != nullptr ? pkt->Branch[0] : pkt->Branch[1];
    while (below != nullptr) {
        leaf = below;
        below = leaf->Branch[0] != nullptr ? leaf->Branch[0] : leaf->Branch[1];
    }
    return leaf;
}

void HangBelow(RtmpRecvPkt *pkt, int branch, RtmpRecvPkt *below)
{
    pkt->Branch[branch] = below;
    if (below != nullptr) {
        below->Place = &pkt->Branch[branch];
    }
}

} // namespace

RtmpRecvPkt *FindInIndex(const RtmpClient *client, uint32_t chunkStreamId)
{
    RtmpRecvPkt *pkt = client->RecvPktRoot;
    for (uint32_t bits = chunkStreamId; pkt != nullptr && pkt->ChunkStreamId != chunkStreamId; bits >>= 1) {
        pkt = pkt->Branch[bits & 1];
    }
    return pkt;
}

void AddToIndex(RtmpClient *client, RtmpRecvPkt *pkt)
{
    RtmpRecvPkt **place = &client->RecvPktRoot;
    for (uint32_t bits = pkt->ChunkStreamId; *place != nullptr; bits >>= 1) {
        place = &(*place)->Branch[bits & 1];
    }
    *place = pkt;
    pkt->Place = place;
    pkt->Branch[0] = nullptr;
    pkt->Branch[1] = nullptr;
}

void TakeFromIndex(RtmpRecvPkt *pkt)
{
    RtmpRecvPkt *heir = LeafBelow(pkt);
    if (heir != nullptr) {
        *heir->Place = nullptr;
        HangBelow(heir, 0, pkt->Branch[0]);
        HangBelow(heir, 1, pkt->Branch[1]);
        heir->Place = pkt->Place;
    }
    *pkt->Place = heir;
    pkt->Place = nullptr;
}
