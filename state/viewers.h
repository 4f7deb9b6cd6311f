// What the host is told of viewers, and asked about them: rtmpcast/host.h, rtmpViewer... Called on the thread
// that serves the client, with no lock held. Of a client that was not announced the host hears only its
// plays.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AdmitViewer announces a connection that the library has accepted on the steady road. 0; -1: refused
// (logged), it is to be closed.
RTMP_STATUS int AdmitViewer(RtmpClient *client);

// AdmitConnect keeps what the client says in the properties of its "connect", and asks the host. 0; -1:
// refused, or no memory (logged). A repeated "connect" changes nothing.
RTMP_STATUS int AdmitConnect(RtmpClient *client, const AmfObject *properties);

// AdmitPlay asks the host of a server on the steady road about the stream that the client's StreamName names,
// announced or not. 0; -1: refused (logged).
RTMP_STATUS int AdmitPlay(RtmpClient *client);

// ViewerLeft tells the host, once, that an announced client is going. Its line, and its session, are still
// there.
void ViewerLeft(RtmpClient *client);
}
