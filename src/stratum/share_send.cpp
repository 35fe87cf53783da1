#include "net/json_rpc.h"
#include "stratum/share.h"

void SendShare(StratumContext &context, const StratumJob &job, const char *nonceText, uint64_t worker) {
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
  if (std::shared_ptr<VLJsonRpcClient> client = context.Client()) {
    {
      // Booked before the line leaves, so that a fast answer finds it.
      std::lock_guard<std::mutex> guard(context.link.pendingLock);
      context.link.pendingShares.push_back({context.link.clock(), worker, job.pool, job.difficulty});
    }
    VLJsonRpcClientSend(client.get(), submit);
  }
  VLJsonRpcMessageRelease(submit);
}
