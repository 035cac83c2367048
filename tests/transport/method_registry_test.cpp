#include "transport/method_registry.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>
#include <tolk/TolkParams.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using tolk::AllRef;
using tolk::MethodRef;
using tolk::MethodRegistry;
using tolk::test::Event;
using Keeper = tolk::MethodRegistry::Keeper;
using Deaths = std::vector<std::string>;

// Says when it dies.
class Handler final : public IServerMethod {
 public:
  Handler(Deaths& deaths, std::string name) : deaths_(deaths), name_(std::move(name)) {}
  ~Handler() override {
    deaths_.push_back(name_);
    if (dying) dying();
  }
  void callback(int, TolkParams*, TolkParams*) override { ++calls; }

  int calls = 0;
  std::function<void()> dying;

 private:
  Deaths& deaths_;
  const std::string name_;
};

class All final : public IMethodAll {
 public:
  explicit All(Deaths& deaths, std::string name = "all")
      : deaths_(deaths), name_(std::move(name)) {}
  ~All() override { deaths_.push_back(name_); }
  void callback(const char*, int, TolkParams*, TolkParams*) override {}

 private:
  Deaths& deaths_;
  const std::string name_;
};

// One object that is both.
class Both final : public IServerMethod, public IMethodAll {
 public:
  explicit Both(Deaths& deaths) : deaths_(deaths) {}
  ~Both() override { deaths_.emplace_back("both"); }
  void callback(int, TolkParams*, TolkParams*) override {}
  void callback(const char*, int, TolkParams*, TolkParams*) override {}

 private:
  Deaths& deaths_;
};

class Registry : public testing::Test {
 protected:
  Handler* make(const std::string& name) { return new Handler(deaths, name); }

  Deaths deaths;
  MethodRegistry registry;
};

TEST_F(Registry, FirstRegistrationStaysWhenAddedIfAbsent) {
  Handler first(deaths, "first");
  Handler second(deaths, "second");
  registry.add_if_absent("m", &first);
  registry.add_if_absent("m", &second);
  EXPECT_EQ(registry.acquire("m").handler, &first);
  EXPECT_EQ(registry.size(), 1u);
}

TEST_F(Registry, LaterRegistrationReplacesAndDeletesNothing) {
  Handler first(deaths, "first");
  Handler second(deaths, "second");
  registry.replace("m", &first);
  registry.replace("m", &second);
  EXPECT_EQ(registry.acquire("m").handler, &second);
  EXPECT_EQ(registry.size(), 1u);
  EXPECT_TRUE(deaths.empty());
}

TEST_F(Registry, ReplacedHandlerIsNotDeletedAtTheReleaseEither) {
  Handler first(deaths, "first");
  registry.replace("m", &first);
  registry.replace("m", make("second"));
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, Deaths{"second"});
}

TEST_F(Registry, NamesAreCompareByteByByte) {
  Handler lower(deaths, "lower");
  Handler upper(deaths, "upper");
  registry.add_if_absent("m", &lower);
  registry.add_if_absent("M", &upper);
  registry.add_if_absent("", &upper);
  EXPECT_EQ(registry.acquire("m").handler, &lower);
  EXPECT_EQ(registry.acquire("M").handler, &upper);
  EXPECT_EQ(registry.acquire("").handler, &upper);
  EXPECT_FALSE(registry.acquire("mm"));
  EXPECT_FALSE(registry.acquire({"m\0", 2}));
}

TEST_F(Registry, AcquiredHandlerCanBeCalled) {
  Handler handler(deaths, "h");
  registry.add_if_absent("m", &handler);
  registry.acquire("m")->callback(0, nullptr, nullptr);
  EXPECT_EQ(handler.calls, 1);
}

TEST_F(Registry, NullNameIsIgnored) {
  Handler handler(deaths, "h");
  registry.add_if_absent(nullptr, &handler);
  registry.replace(nullptr, &handler);
  EXPECT_EQ(registry.size(), 0u);
}

TEST_F(Registry, NullHandlerMakesTheNamePresentAndNeverCalled) {
  Handler handler(deaths, "h");
  registry.add_if_absent("m", nullptr);
  EXPECT_TRUE(registry.contains("m"));
  EXPECT_FALSE(registry.acquire("m"));
  registry.add_if_absent("m", &handler);
  EXPECT_FALSE(registry.acquire("m")) << "the name is taken";
  registry.replace("m", &handler);
  EXPECT_TRUE(registry.acquire("m"));
  registry.replace("m", nullptr);
  EXPECT_FALSE(registry.acquire("m"));
  registry.release_all(Keeper::library);
  EXPECT_TRUE(deaths.empty());
}

TEST_F(Registry, LookingUpForInsertionLeavesTheNameBehind) {
  EXPECT_FALSE(registry.acquire_or_insert("m"));
  EXPECT_TRUE(registry.contains("m"));
  Handler handler(deaths, "h");
  registry.replace("m", &handler);
  EXPECT_EQ(registry.acquire_or_insert("m").handler, &handler);
}

TEST_F(Registry, CatchAllOfAClientIsTheFirst) {
  All first(deaths);
  All second(deaths);
  EXPECT_FALSE(registry.acquire_all());
  registry.set_all_if_absent(&first);
  registry.set_all_if_absent(&second);
  EXPECT_EQ(registry.acquire_all().handler, &first);
}

TEST_F(Registry, CatchAllOfAServerIsTheLast) {
  All first(deaths);
  All second(deaths);
  registry.set_all(&first);
  registry.set_all(&second);
  EXPECT_EQ(registry.acquire_all().handler, &second);
  registry.set_all(nullptr);
  EXPECT_FALSE(registry.acquire_all());
  EXPECT_TRUE(deaths.empty());
}

TEST_F(Registry, ReleaseDeletesTheCatchAllFirstThenByName) {
  registry.add_if_absent("b", make("b"));
  registry.add_if_absent("c", make("c"));
  registry.add_if_absent("a", make("a"));
  registry.set_all(new All(deaths));
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, (Deaths{"all", "a", "b", "c"}));
  EXPECT_EQ(registry.size(), 0u);
  EXPECT_FALSE(registry.acquire("a"));
  EXPECT_FALSE(registry.acquire_all());
}

TEST_F(Registry, SecondReleaseFindsNothing) {
  registry.add_if_absent("a", make("a"));
  registry.set_all(new All(deaths));
  registry.release_all(Keeper::library);
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, (Deaths{"all", "a"}));
}

TEST_F(Registry, HostsCustodyDeletesNothingAndKeepsTheCatchAll) {
  Handler handler(deaths, "h");
  All all(deaths);
  registry.add_if_absent("a", &handler);
  registry.set_all(&all);
  registry.release_all(Keeper::host);
  EXPECT_TRUE(deaths.empty());
  EXPECT_EQ(registry.size(), 0u);
  EXPECT_FALSE(registry.acquire("a"));
  EXPECT_EQ(registry.acquire_all().handler, &all);
}

TEST_F(Registry, ObjectUnderTwoNamesIsDeletedOnce) {
  Handler* const twice = make("twice");
  registry.add_if_absent("a", twice);
  registry.add_if_absent("b", twice);
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, Deaths{"twice"});
}

TEST_F(Registry, ObjectThatIsMethodAndCatchAllIsDeletedOnce) {
  auto* const both = new Both(deaths);
  registry.add_if_absent("a", both);
  registry.set_all(both);
  registry.add_if_absent("b", both);
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, Deaths{"both"});
}

TEST_F(Registry, ReferenceFromOutsideSharesTheObjectsFate) {
  Handler* const handler = make("h");
  MethodRef reference = registry.refer_to(handler);
  registry.add_if_absent("a", handler);
  registry.release_all(Keeper::library);
  EXPECT_TRUE(deaths.empty());
  EXPECT_TRUE(reference.owner->marked_for_deletion());
  reference = {};
  EXPECT_EQ(deaths, Deaths{"h"});
}

TEST_F(Registry, ReferenceAloneDeletesNothing) {
  Handler handler(deaths, "h");
  { const MethodRef reference = registry.refer_to(&handler); }
  registry.release_all(Keeper::library);
  EXPECT_TRUE(deaths.empty());
  EXPECT_FALSE(registry.refer_to(nullptr));
}

TEST_F(Registry, BusyHandlerIsDeletedWhenItsLastCallReturns) {
  registry.add_if_absent("busy", make("busy"));
  registry.add_if_absent("idle", make("idle"));
  MethodRef one_call = registry.acquire("busy");
  MethodRef other_call = registry.acquire("busy");
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, Deaths{"idle"});
  one_call = {};
  EXPECT_EQ(deaths, Deaths{"idle"});
  other_call->callback(0, nullptr, nullptr);
  other_call = {};
  EXPECT_EQ(deaths, (Deaths{"idle", "busy"}));
}

TEST_F(Registry, BusyCatchAllIsDeletedWhenItsLastCallReturns) {
  registry.set_all(new All(deaths));
  AllRef call = registry.acquire_all();
  registry.release_all(Keeper::library);
  EXPECT_TRUE(deaths.empty());
  call = {};
  EXPECT_EQ(deaths, Deaths{"all"});
}

TEST_F(Registry, BusyHandlerOfAnotherThreadDiesThere) {
  registry.add_if_absent("m", make("m"));
  Event acquired;
  Event may_return;
  std::thread::id died_on;
  static_cast<Handler*>(registry.acquire("m").handler)->dying = [&] {
    died_on = std::this_thread::get_id();
  };
  std::thread worker([&] {
    const MethodRef call = registry.acquire("m");
    acquired.set();
    may_return.wait();
  });
  const std::thread::id worker_id = worker.get_id();
  ASSERT_TRUE(acquired.wait());
  registry.release_all(Keeper::library);
  EXPECT_EQ(died_on, std::thread::id());
  may_return.set();
  worker.join();
  EXPECT_EQ(died_on, worker_id);
}

TEST_F(Registry, BuiltinDiesWithTheReleaseInItsPlaceByName) {
  registry.add_builtin("b", std::make_unique<Handler>(deaths, "builtin"));
  registry.add_if_absent("a", make("a"));
  registry.add_if_absent("b", nullptr);
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, (Deaths{"a", "builtin"}));
}

TEST_F(Registry, BuiltinDiesAlsoInTheHostsCustody) {
  registry.add_builtin("b", std::make_unique<Handler>(deaths, "builtin"));
  registry.release_all(Keeper::host);
  EXPECT_EQ(deaths, Deaths{"builtin"});
}

TEST_F(Registry, ReplacedBuiltinDiesAtOnce) {
  Handler own(deaths, "own");
  registry.add_builtin("b", std::make_unique<Handler>(deaths, "builtin"));
  registry.replace("b", &own);
  EXPECT_EQ(deaths, Deaths{"builtin"});
}

TEST_F(Registry, BuiltinDiesWithTheRegistry) {
  {
    MethodRegistry other;
    other.add_builtin("b", std::make_unique<Handler>(deaths, "builtin"));
  }
  EXPECT_EQ(deaths, Deaths{"builtin"});
}

TEST_F(Registry, RegistryThatIsNeverReleasedDeletesNothingOfTheHosts) {
  Handler handler(deaths, "h");
  All all(deaths);
  {
    MethodRegistry other;
    other.add_if_absent("a", &handler);
    other.set_all(&all);
  }
  EXPECT_TRUE(deaths.empty());
}

TEST_F(Registry, RefusalHidesEverythingAndEndsNoRegistration) {
  Handler handler(deaths, "h");
  All all(deaths);
  registry.add_if_absent("a", &handler);
  registry.set_all(&all);
  registry.refuse();
  EXPECT_FALSE(registry.acquire("a"));
  EXPECT_FALSE(registry.acquire_all());
  EXPECT_TRUE(registry.contains("a"));
  EXPECT_EQ(registry.size(), 1u);
}

TEST_F(Registry, RegistryCanBeFilledAgainAfterARelease) {
  registry.add_if_absent("a", make("first"));
  registry.release_all(Keeper::library);
  registry.add_if_absent("a", make("second"));
  EXPECT_TRUE(registry.acquire("a"));
  registry.release_all(Keeper::library);
  EXPECT_EQ(deaths, (Deaths{"first", "second"}));
}

TEST_F(Registry, DestructorMayUseTheRegistry) {
  Handler* const handler = make("h");
  handler->dying = [this] {
    EXPECT_FALSE(registry.acquire("a"));
    registry.add_if_absent("late", nullptr);
  };
  registry.add_if_absent("a", handler);
  registry.release_all(Keeper::library);
  EXPECT_TRUE(registry.contains("late"));
}

TEST_F(Registry, RegistrationsComeAndGoBesideCalls) {
  std::atomic<bool> done{false};
  std::vector<std::thread> callers;
  for (int t = 0; t < 3; ++t) {
    callers.emplace_back([&] {
      while (!done) {
        if (const MethodRef method = registry.acquire("m")) {
          EXPECT_NE(method.owner, nullptr);
        }
        if (const AllRef all = registry.acquire_all()) {
          EXPECT_NE(all.owner, nullptr);
        }
      }
    });
  }
  struct Quiet final : IServerMethod {
    void callback(int, TolkParams*, TolkParams*) override {}
  };
  for (int i = 0; i < 500; ++i) {
    registry.add_if_absent("m", new Quiet);
    registry.release_all(Keeper::library);
  }
  done = true;
  for (std::thread& caller : callers) caller.join();
}

}  // namespace
