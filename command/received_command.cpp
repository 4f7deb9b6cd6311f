#include "command/received_command.h"

#include "amf/object.h"

#include <stdint.h>
#include <string.h>

namespace {

constexpr int32_t kNamePosition = 0;
constexpr int32_t kTransactionIdPosition = 1;
constexpr int32_t kCommandObjectPosition = 2;
constexpr int32_t kFirstArgument = 3;

// A position past the end finds the first value in GetAmfProp, so the count is asked first.
AmfObjProperty *ValueAt(const ReceivedCommand *command, int32_t position, uint32_t type)
{
    if (position >= command->Values->count) {
        return nullptr;
    }
    RtmpServer *server = command->Client->Server;
    AmfObjProperty *value = GetAmfProp(server, command->Values, nullptr, position);
    return value != nullptr && GetAmfPropType(server, value) == type ? value : nullptr;
}

} // namespace

void ReadCommandHead(ReceivedCommand *command)
{
    RtmpServer *server = command->Client->Server;
    command->Name = {};
    command->TransactionId = 0;
    command->Properties = {};
    command->Next = kFirstArgument;
    AmfObjProperty *name = ValueAt(command, kNamePosition, AMF_STRING);
    if (name != nullptr) {
        GetAmfPropString(server, name, &command->Name);
    }
    AmfObjProperty *transactionId = ValueAt(command, kTransactionIdPosition, AMF_NUMBER);
    if (transactionId != nullptr) {
        command->TransactionId = GetAmfPropNumber(server, transactionId);
    }
    AmfObjProperty *object = ValueAt(command, kCommandObjectPosition, AMF_OBJECT);
    if (object != nullptr) {
        GetAmfObject(server, object, &command->Properties);
    }
}

AmfObjProperty *TakeArgument(ReceivedCommand *command, uint32_t type)
{
    AmfObjProperty *argument = ValueAt(command, command->Next, type);
    if (argument != nullptr) {
        command->Next++;
    }
    return argument;
}

bool TakeString(ReceivedCommand *command, AmfString *text)
{
    AmfObjProperty *argument = TakeArgument(command, AMF_STRING);
    if (argument == nullptr) {
        return false;
    }
    GetAmfPropString(command->Client->Server, argument, text);
    return true;
}

bool TakeObject(ReceivedCommand *command, AmfObject *object)
{
    AmfObjProperty *argument = TakeArgument(command, AMF_OBJECT);
    if (argument == nullptr) {
        return false;
    }
    GetAmfObject(command->Client->Server, argument, object);
    return true;
}

const char *TextStart(const AmfString *text)
{
    return text->data != nullptr ? text->data : "";
}

int TextLength(const AmfString *text, int most)
{
    const int length = text->data != nullptr ? text->len : 0;
    return length < most ? length : most;
}

bool TextEquals(const AmfString *text, const char *word)
{
    return text->len == strlen(word) && KeyMatches(text, word);
}

bool KeyMatches(const AmfString *key, const char *keyword)
{
    return key->len <= strlen(keyword) && memcmp(TextStart(key), keyword, key->len) == 0;
}

void StoreText(char *field, uint64_t size, const AmfString *text)
{
    const int length = TextLength(text, static_cast<int>(size) - 1);
    memcpy(field, TextStart(text), static_cast<uint64_t>(length));
    field[length] = '\0';
}

int32_t TruncateToInt32(double value)
{
    if (value != value) { // NaN
        return 0;
    }
    if (value >= INT32_MAX) {
        return INT32_MAX;
    }
    return value <= INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}
