// What a host holds as an IServer: the facade of a server.
//
// Thread: as IServer. Owner: the host, from CreateServer to DestroyServer. Each operation holds a
// reference to the server, which therefore outlives a facade that is destroyed meanwhile.
// Failure: no exception leaves an operation; it returns its failure value.
#pragma once

#include <tolk/IServer.h>

#include <memory>

namespace tolk {
class ServerSide;
}

class TolkServer : public IServer {
 public:
  TolkServer();
  virtual ~TolkServer();

  bool ListenPipe(const char* port) override;
  bool InitTolkServer(const char* port) override;
  bool ListenTcp4(const char* host, const char* port) override;
  bool ListenTcp6(const char* host, const char* port) override;
  bool InitTolkServerTcp4(const char* host, const char* port) override;
  bool InitTolkServerTcp6(const char* host, const char* port) override;
  bool run() override;
  void SetTimeoutStep(int ms) override;
  bool isok() override;
  bool close() override;
  bool closeasync() override;
  TolkParams* SendMsg(int clientid, const char* name, TolkParams* params, int threadid,
                      int timeout) override;
  TolkParams* PostMsg(int clientid, const char* name, TolkParams* params, int threadid) override;
  bool log(char* text, int level) override;
  void method(const char* name, IServerMethod* m) override;
  void methodall(IMethodAll* m) override;
  int GetPort() override;
  int GetClientCount() override;
  bool IsPipe() override;
  void SetCustomReleaseEvent() override;
  void SetBigfileBufferSize(int size) override;
  void ClearRetvalMem() override;

  // Ends the server; the storage can then be freed without a destructor.
  void release();

 private:
  std::shared_ptr<tolk::ServerSide> side() const { return side_; }

  std::shared_ptr<tolk::ServerSide> side_;
};
