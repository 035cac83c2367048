// Sources and sinks of transfers that no call has taken, and files that cannot be used.
#include <gtest/gtest.h>
#include <tolk/c.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

std::string unused_data_path() {
  return (std::filesystem::temp_directory_path() /
          ("capi-data-" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count())))
      .string();
}

void count_data_release(void* count) { ++*static_cast<int*>(count); }

TEST(CapiData, WhatNobodyTakesReleasesItsContextOnce) {
  int released = 0;
  tolk_source_free(tolk_source_memory("x", 1, &released, count_data_release));
  EXPECT_EQ(released, 1);
  const auto read = [](void*, void*, size_t) { return size_t{0}; };
  tolk_source_free(tolk_source_callback(5, read, &released, count_data_release));
  EXPECT_EQ(released, 2);
  const auto write = [](void*, const void*, size_t) { return true; };
  tolk_sink_free(tolk_sink_callback(write, &released, count_data_release));
  EXPECT_EQ(released, 3);
  EXPECT_EQ(tolk_source_memory(nullptr, 1, &released, count_data_release), nullptr);
  EXPECT_EQ(tolk_source_callback(5, nullptr, &released, count_data_release), nullptr);
  EXPECT_EQ(tolk_sink_callback(nullptr, &released, count_data_release), nullptr);
  EXPECT_EQ(released, 6);
  tolk_source_free(nullptr);
  tolk_sink_free(nullptr);
}

TEST(CapiData, AFileThatCannotBeUsedIsAFailureWithItsName) {
  const std::string nowhere = unused_data_path() + "/none";
  tolk_source* source = nullptr;
  tolk_sink* sink = nullptr;
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_source_file(nowhere.c_str(), &source, &error), TOLK_FILE);
  EXPECT_EQ(source, nullptr);
  EXPECT_NE(std::string(tolk_error_text(error)).find(nowhere), std::string::npos);
  EXPECT_NE(tolk_error_code(error), 0);
  tolk_error_free(error);
  EXPECT_EQ(tolk_sink_file(nowhere.c_str(), &sink, &error), TOLK_FILE);
  EXPECT_EQ(sink, nullptr);
  EXPECT_NE(tolk_error_code(error), 0);
  tolk_error_free(error);
  const std::string folder = std::filesystem::temp_directory_path().string();
  EXPECT_EQ(tolk_source_file(folder.c_str(), &source, nullptr), TOLK_FILE);
  EXPECT_EQ(tolk_source_file(nullptr, &source, nullptr), TOLK_MISUSE);
  EXPECT_EQ(tolk_sink_file("x", nullptr, nullptr), TOLK_MISUSE);
}

TEST(CapiData, ASinkEmptiesItsFileAndRemovesItUnused) {
  const std::string path = unused_data_path();
  std::ofstream(path) << "old";
  tolk_sink* sink = nullptr;
  ASSERT_EQ(tolk_sink_file(path.c_str(), &sink, nullptr), TOLK_OK);
  EXPECT_EQ(std::filesystem::file_size(path), 0U);
  tolk_sink_free(sink);
  EXPECT_FALSE(std::filesystem::exists(path));
}

#if !defined(_WIN32)
TEST(CapiData, ASinkRemovesNothingButAFile) {
  const std::string path = unused_data_path();
  std::filesystem::create_symlink("/dev/null", path);
  tolk_sink* sink = nullptr;
  ASSERT_EQ(tolk_sink_file(path.c_str(), &sink, nullptr), TOLK_OK);
  tolk_sink_free(sink);
  EXPECT_TRUE(std::filesystem::remove(path));
}
#endif

TEST(CapiData, AClientThatIsNotThereTakesTheDataToo) {
  int released = 0;
  tolk_call call{};
  call.size = sizeof call;
  call.method = "any";
  call.source = tolk_source_memory("x", 1, &released, count_data_release);
  EXPECT_EQ(tolk_client_start(nullptr, &call), 0U);
  EXPECT_EQ(released, 1);
}

}  // namespace
