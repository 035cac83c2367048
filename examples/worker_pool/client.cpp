// A worker of worker_pool_server: does what it is called for until the server goes away.
//
//   worker_pool_client PORT [JOBS]        JOBS: dies in the middle of this one
#include <tolk/tolk.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <iostream>

bool is_prime(int number) {
  for (int divisor = 2; divisor * divisor <= number; ++divisor) {
    if (number % divisor == 0) return false;
  }
  return number > 1;
}

// The server calls this; it runs on one of our worker threads.
struct CountPrimes : IServerMethod {
  explicit CountPrimes(int its_last_job) : last_job(its_last_job) {}
  void callback(int, TolkParams* in, TolkParams* out) override {
    if (++jobs == last_job) std::_Exit(3);  // as if somebody had killed us
    const TolkValue* from = in->GetValue(0);
    const TolkValue* to = in->GetValue(1);
    if (!from || !from->IsInt() || !to || !to->IsInt()) return;
    int found = 0;
    for (int number = from->GetInt(); number < to->GetInt(); ++number) {
      if (is_prime(number)) ++found;
    }
    out->AddInt(found);
  }
  std::atomic<int> jobs{0};
  const int last_job;
};

// The event that the server has gone. It runs on the loop thread, where nothing may wait; so it
// only lets main go on.
struct ServerGone : IServerMethod {
  void callback(int, TolkParams*, TolkParams*) override { gone.set_value(); }
  std::promise<void> gone;
};

int main(int argc, char** argv) {
  static CountPrimes count_primes(argc > 2 ? std::atoi(argv[2]) : 0);
  static ServerGone server_gone;
  IClient* client = CreateClient();
  client->SetCustomReleaseEvent();  // the handlers stay ours
  client->method("count primes", &count_primes);
  client->method("s_c_closed", &server_gone);
  const int time_out_ms = 2000;
  const bool reported = client->InitTolkClient(argc > 1 ? argv[1] : "4003", false) &&
                        client->SendMsg("report", nullptr, 0, time_out_ms);
  if (reported) server_gone.gone.get_future().wait();
  std::cout << "jobs done: " << count_primes.jobs << std::endl;
  DestroyClient(client);
  return reported ? 0 : 1;
}
