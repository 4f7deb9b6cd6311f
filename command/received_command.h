// A decoded command message (RTMP 1.0, 7.2): its head, and a cursor over the arguments behind it.
//
//   value 0: name   value 1: transaction id   value 2: command object   value 3 and on: arguments
#pragma once

#include "rtmpcast/types.h"

extern "C" {

struct ReceivedCommand {
    RtmpClient *Client;
    RtmpRecvPkt *Pkt;
    const char *Caller; // the procedure that the log lines belong to
    RtmpLogger *Logger;
    AmfObject *Values;    // attached to Pkt
    AmfString Name;       // empty when value 0 is no string
    double TransactionId; // 0 when value 1 is no number
    AmfObject Properties; // of the command object; empty when value 2 is no object
    int32_t Next;         // position of the next argument
};

// ReadCommandHead fills Name, TransactionId and Properties from Values and sets the cursor behind them.
void ReadCommandHead(ReceivedCommand *command);

// TakeArgument returns the next argument and steps behind it when it exists and has the AmfType `type`.
// Otherwise null, and the cursor stays.
AmfObjProperty *TakeArgument(ReceivedCommand *command, uint32_t type);

// TakeString and TakeObject do the same for the value itself, which stays the list's.
bool TakeString(ReceivedCommand *command, AmfString *text);
bool TakeObject(ReceivedCommand *command, AmfObject *object);

// TextStart and TextLength bound a decoded string, which has no terminator, for "%.*s".
const char *TextStart(const AmfString *text); // never null
int TextLength(const AmfString *text, int most);

bool TextEquals(const AmfString *text, const char *word);

// KeyMatches tells whether a received key is a prefix of `keyword`, as the empty key is of all.
// KEPT: as many bytes are compared as the received key has. Required; changes who is refused.
bool KeyMatches(const AmfString *key, const char *keyword);

// StoreText copies `text` into a field of `size` bytes, cut where its terminator must stand.
void StoreText(char *field, uint64_t size, const AmfString *text);

// TruncateToInt32 rounds towards zero. Values that do not fit saturate; NaN becomes 0.
int32_t TruncateToInt32(double value);
}
