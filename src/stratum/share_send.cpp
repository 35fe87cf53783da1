#include "net/json_rpc.h"
#include "stratum/share.h"

void SendShare(StratumContext &context, const StratumJob &job, const char *nonceText) {
  VLObject *id = VLNumberCreateUInt32(4);
  VLObject *method = VLStringCreate("mining.submit", 0);
  VLJsonRpcMessage *submit = VLJsonRpcRequestCreate(id, method, VLJsonRpcVersion2);
  VLObjectRelease(id);
  VLObjectRelease(method);
  for (const char *text : {context.account ? context.account : "", job.jobId.c_str(), nonceText}) {
    VLObject *value = VLStringCreateFormat("%s", text);
    VLJsonRpcMessageAddParam(submit, value);
    VLObjectRelease(value);
  }
  if (context.rpcClient) VLJsonRpcClientSend(context.rpcClient, submit);
  VLJsonRpcMessageRelease(submit);
}
