#include "stratum/message_kind.h"

#include <cstring>

namespace {

struct MethodKind {
  const char *name;
  PoolMessageKind kind;
};

// Names are compared byte for byte, with case.
constexpr MethodKind kMethods[] = {
    {"mining.set_difficulty", PoolMessageKind::SetDifficulty},
    {"mining.set_target", PoolMessageKind::SetTarget},
    {"mining.set_extranonce", PoolMessageKind::SetExtranonce},
    {"mining.notify", PoolMessageKind::Notify},
    {"client.get_version", PoolMessageKind::GetVersion},
    {"client.show_message", PoolMessageKind::ShowMessage},
    {"mining.ping", PoolMessageKind::Ping},
    {"client.reconnect", PoolMessageKind::Reconnect},
};

PoolMessageKind AnswerKind(const VLObject *id) {
  // Our ids are whole numbers; the JSON reader makes a negative one kind 1.
  if (VLObjectType(id) != VLTypeNumber) return PoolMessageKind::StrayAnswer;
  uint32_t kind = VLNumberGetKind(id);
  if (kind != VLNumberUInt32 && kind != VLNumberUInt64) return PoolMessageKind::StrayAnswer;
  switch (VLNumberGetUInt64(id)) {
    case 0: return PoolMessageKind::StrayAnswer;
    case kSubscribeId: return PoolMessageKind::SubscribeAnswer;
    case kExtranonceSubscribeId: return PoolMessageKind::ExtranonceSubscribeAnswer;
    case kAuthorizeId: return PoolMessageKind::AuthorizeAnswer;
    default: return PoolMessageKind::ShareAnswer;
  }
}

}  // namespace

PoolMessageKind StratumClassifyMessage(const VLJsonRpcMessage *message) {
  const VLObject *method = VLJsonRpcMessageMethod(message);
  if (!method) return AnswerKind(VLJsonRpcMessageId(message));
  const char *name = VLObjectType(method) == VLTypeString ? VLStringChars(method) : "";
  for (const MethodKind &entry : kMethods) {
    if (strcmp(name, entry.name) == 0) return entry.kind;
  }
  return PoolMessageKind::OtherMethod;
}

bool IsPoolRequest(PoolMessageKind kind) {
  return kind == PoolMessageKind::GetVersion || kind == PoolMessageKind::ShowMessage || kind == PoolMessageKind::Ping ||
         kind == PoolMessageKind::Reconnect;
}
