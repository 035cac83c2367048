// What a host holds as an IClient: the facade of a client.
//
// Thread: as IClient. Owner: the host, from CreateClient to DestroyClient. Copies refer to the same
// client, and the last of them ends it. Each operation holds a reference to the client, which
// therefore outlives a facade that is destroyed meanwhile.
// Failure: no exception leaves an operation; it returns its failure value.
#pragma once

#include <tolk/IClient.h>
#include <uv.h>

#include <cstdint>
#include <list>
#include <memory>

struct timeout_sem;

namespace tolk {
class ClientSide;
}

class TolkClient : public IClient {
 public:
  TolkClient();

  bool InitTolkClient(const char* name, bool) override;
  bool InitTolkClientTcp4(const char* host, const char* port, bool) override;
  bool InitTolkClientTcp6(const char* host, const char* port, bool) override;
  void SetTimeoutStep(int step) override;
  bool isok() override;
  void close() override;
  TolkParams* SendMsg(const char* name, TolkParams* params, int threadid, int timeout) override;
  TolkParams* SendMsgFast(const char* name, TolkParams* params, int threadid, int timeout) override;
  TolkParams* PostMsg(const char* name, TolkParams* params, int threadid) override;
  TolkParams* PostMsgFast(const char* name, TolkParams* params, int threadid) override;
  TolkParams* SendMsgEx(const char* name, TolkParams* params, int threadid, int) override;
  bool log(char* text, int level) override;
  void method(const char* name, IServerMethod* handler) override;
  void methodall(IMethodAll* handler) override;
  void SetBigfileBufferSize(int size) override;
  int GetBigfileBufferSize() override;
  void ClearRetvalMem() override;

  // Members beyond the interface. The library does not export them.
  bool SendMsgLargeData(const char* name, TolkParams* params, int threadid, int timeout);
  void ClearMem();
  void closeClient();
  // Loop thread: one frame with `len` bytes of payload; a libuv status.
  int writebuff(uv_stream_t* stream, char* data, int len);
  static void write_server_cb(uv_write_t* request, int status);
  void write_server(uv_write_t* request, int status);
  static void sendmsg_timeout_cb(uv_timer_t* timer);
  static void close_sendmsg_timeout_cb(uv_handle_t* handle);
  static std::list<timeout_sem*>& _vcSem;

 private:
  void SetCustomReleaseEvent() override;

  struct Holder;
  std::shared_ptr<tolk::ClientSide> side() const;

  std::shared_ptr<Holder> holder_;
};
