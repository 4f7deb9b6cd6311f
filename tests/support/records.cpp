#include "support/records.h"

#include "net/platform.h"
#include "support/host_fakes.h"

#include <gtest/gtest.h>

Records::Records()
{
    HostFakes::get().reset();
    server.Logger = log.get();
    session.Server = &server;
    session.MemberLeft = PTHREAD_COND_INITIALIZER;
    for (RtmpMutex *lock : {&server.LiveSessionListLock, &session.ClientListLock, &session.MemberLock}) {
        EXPECT_EQ(RtmpMutexInit(lock), 0);
    }
}

// A lock that is still held here was not given back by whoever was tested.
Records::~Records()
{
    for (RtmpMutex *lock : {&server.LiveSessionListLock, &session.ClientListLock, &session.MemberLock}) {
        EXPECT_EQ(RtmpMutexDestroy(lock), 0);
    }
}
