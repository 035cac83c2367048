// A worker of worker_pool_server: answers calls until the server closes.
//
//   worker_pool_client PORT [JOBS]        dies during job number JOBS
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

// The server calls this on a worker thread of this process.
struct CountPrimes : IServerMethod {
  explicit CountPrimes(int its_last_job) : last_job(its_last_job) {}
  void callback(int, TolkParams* in, TolkParams* out) override {
    if (++jobs == last_job) std::_Exit(3);  // as if the process had been killed
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

// The server has closed. This runs on the loop thread, which must not wait, so it only wakes main.
struct ServerGone : IServerMethod {
  void callback(int, TolkParams*, TolkParams*) override { gone.set_value(); }
  std::promise<void> gone;
};

int main(int argc, char** argv) {
  static CountPrimes count_primes(argc > 2 ? std::atoi(argv[2]) : 0);
  static ServerGone server_gone;
  IClient* client = CreateClient();
  client->SetCustomReleaseEvent();  // the program keeps its handlers
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
