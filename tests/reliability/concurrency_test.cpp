// Several threads run every operator that may run beside others, each on its
// own images, and must get the bytes of a single-threaded run; every operator
// but the random ones gives the same bytes on a second run.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "reliability/harness.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3;

// Image sizes of thread t: each thread has its own widths, heights and
// padding, so their tails and paths differ too.
qvr::Buffers Inputs(const qvr::Export& e, int Channel, int t) {
  return qvr::Buffers(e, 45 + 17 * t, 21 + 6 * t, Channel, t % 3, 11 + t);
}

struct Job {
  const qvr::Export* Op;
  int Channel;
  qvr::Buffers Expect[kThreads];  // results of the single-threaded run, per thread's images
};

std::vector<Job> SingleThreadedResults(bool Concurrent) {
  std::vector<Job> jobs;
  for (const auto& e : qvr::Exports()) {
    if (e.Shared == qvr::Share::Random) continue;
    if (Concurrent && e.Shared != qvr::Share::None) continue;
    for (int c : qvr::AcceptedChannels(e)) {
      Job j{&e, c, {Inputs(e, c, 0), Inputs(e, c, 1), Inputs(e, c, 2), Inputs(e, c, 3)}};
      for (auto& b : j.Expect) EXPECT_EQ(e.Run(b.Args()), STATUS_OK) << e.Name;
      jobs.push_back(std::move(j));
    }
  }
  return jobs;
}

std::string Differs(const Job& j, const qvr::Buffers& expect, const qvr::Buffers& got) {
  std::string where = std::string(j.Op->Name) + " channels " + std::to_string(j.Channel);
  auto same = qvt::SameBytes(expect.Dest.data, got.Dest.data, got.Dest.Stride);
  if (!same) return where + ": " + same.message();
  if (expect.Out != got.Out) return where + ": result " + std::to_string(got.Out);
  return "";
}

TEST(Concurrency, ThreadsGiveTheSingleThreadedBytes) {
  const std::vector<Job> jobs = SingleThreadedResults(true);
  ASSERT_GT(jobs.size(), 40u);
  std::vector<std::string> failures[kThreads];
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      ++ready;
      while (ready.load() < kThreads) std::this_thread::yield();  // start together
      for (int round = 0; round < kRounds; ++round)
        // Each thread walks the table from its own place, so different
        // operators overlap as well as the same one.
        for (size_t k = 0; k < jobs.size(); ++k) {
          const Job& j = jobs[(k + t * jobs.size() / kThreads) % jobs.size()];
          qvr::Buffers b = Inputs(*j.Op, j.Channel, t);
          const int status = j.Op->Run(b.Args());
          if (status != STATUS_OK)
            failures[t].push_back(std::string(j.Op->Name) + ": status " + std::to_string(status));
          const std::string d = Differs(j, j.Expect[t], b);
          if (!d.empty()) failures[t].push_back(d);
        }
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t)
    for (const auto& f : failures[t]) ADD_FAILURE() << "thread " << t << ": " << f;
}

// Every operator but the random ones (the frequency filters included, run
// one at a time) repeats its bytes on the same arguments.
TEST(Determinism, SecondRunGivesTheSameBytes) {
  const std::vector<Job> jobs = SingleThreadedResults(false);
  for (const Job& j : jobs)
    for (int t = 0; t < kThreads; ++t) {
      qvr::Buffers b = Inputs(*j.Op, j.Channel, t);
      ASSERT_EQ(j.Op->Run(b.Args()), STATUS_OK) << j.Op->Name;
      const std::string d = Differs(j, j.Expect[t], b);
      EXPECT_TRUE(d.empty()) << d;
    }
}

}  // namespace
