#include "net/json_rpc.h"
#include "stratum/share.h"

void CountDroppedShare(StratumContext &context) {
  context.sharesDroppedWhileDisconnected.fetch_add(1);
  context.link.droppedSinceLoss.fetch_add(1);
}

void SendShare(StratumContext &context, const StratumJob &job, const char *nonceText, uint64_t worker) {
  // Only the connection that brought the job may take its share: a later one,
  // even to the same pool, is another session with other jobs.
  std::shared_ptr<VLJsonRpcClient> client = context.ClientOfLink(job.link);
  if (!client) {
    CountDroppedShare(context);
    return;
  }
  // The account of the job's pool; the run's pool list never changes.
  const char *account = job.pool < context.pools.size() ? context.pools[job.pool].user.c_str() : context.account;
  StratumLink &link = context.link;
  bool sent;
  {
    // Numbered, booked and queued under one lock: shares leave in the order
    // of the list, and a fast answer finds its share booked. Queuing never
    // waits on the network.
    std::lock_guard<std::mutex> guard(link.pendingLock);
    uint64_t shareId = link.nextShareId++;
    VLObject *id = VLNumberCreateUInt64(shareId);
    VLObject *method = VLStringCreate("mining.submit", 0);
    VLJsonRpcMessage *submit = VLJsonRpcRequestCreate(id, method, VLJsonRpcVersion2);
    VLObjectRelease(id);
    VLObjectRelease(method);
    for (const char *text : {account ? account : "", job.jobId.c_str(), nonceText}) {
      VLObject *value = VLStringCreateFormat("%s", text);
      VLJsonRpcMessageAddParam(submit, value);
      VLObjectRelease(value);
    }
    link.pendingShares.push_back({shareId, link.clock(), worker, job.pool, job.difficulty, job.link});
    sent = VLJsonRpcClientSend(client.get(), submit);
    VLJsonRpcMessageRelease(submit);
    // Closed meanwhile: no answer will come.
    if (!sent) link.pendingShares.pop_back();
  }
  if (!sent) CountDroppedShare(context);
}
