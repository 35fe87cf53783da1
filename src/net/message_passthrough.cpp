// The message layer between the socket set and its users. Sockets that don't
// ask for message parsing, which are the only kind this set builds, get every
// read handed on unchanged.
#include "foundation/logger.h"
#include "net/socket_set.h"
#include "net/socket_set_record.h"

void TRPSocketSetSetMessageCallbacks(TRPSocketSet *set, TRPSocketSetDisconnectedCallback disconnected,
                                     TRPSocketSetConnectedCallback connected, TRPSocketSetRawDataCallback rawData,
                                     void *userData) {
  set->messageRawData = rawData;
  TRPSocketSetSetCallbacks(set, disconnected, connected, TRPSocketSetParseMessage, nullptr, userData);
}

void TRPSocketSetParseMessage(TRPSocketSet *set, uint32_t tag, const uint8_t *bytes, uint32_t length, void *userData) {
  if (!TRPSocketSetFindTag(set, tag)) {
    VL_LOG(VLLogLevelInfo, "SOCKETSET", "Socket Set Recv on a NULL socket");
    return;
  }
  if (set->disconnecting) {
    VL_LOG(VLLogLevelWarning, "SOCKETSET", "Aborting receive callback because socket is disconnecting");
    return;
  }
  TRPSocketSetRawDataCallback rawData = set->messageRawData;
  if (rawData) rawData(set, tag, bytes, length, userData);
}
