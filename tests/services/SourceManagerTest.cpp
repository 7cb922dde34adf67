// The source-content cache: one read per file, shared texts, no memory of
// failures, and one read even when many threads ask at once.

#include "compiler/SourceManager.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using quor::compiler::SourceManager;
using namespace quor::test;

TEST(SourceManagerTest, ReadsAFileOnceAndSharesTheText) {
    TemporaryDirectory directory;
    fs::path file = directory.path() / "A.qr";
    writeFile(file, "first text\n");
    SourceManager& sources = SourceManager::instance();
    auto first = sources.contents(file);
    ASSERT_TRUE(first);
    EXPECT_EQ(*first, "first text\n");

    // The file changes on disk; the cache keeps answering with what it read.
    writeFile(file, "second text\n");
    auto second = sources.contents(file);
    ASSERT_TRUE(second);
    EXPECT_EQ(second.get(), first.get());
    EXPECT_EQ(*second, "first text\n");

    // Another spelling of the same path shares the entry.
    auto third = sources.contents(directory.path() / "." / "A.qr");
    EXPECT_EQ(third.get(), first.get());

    sources.clear();
    auto reread = sources.contents(file);
    ASSERT_TRUE(reread);
    EXPECT_EQ(*reread, "second text\n");
    sources.clear();
}

TEST(SourceManagerTest, CountsOneOpenPerFile) {
    TemporaryDirectory directory;
    writeFile(directory.path() / "B.qr", "text");
    OpenCounter opens(directory.path());
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(SourceManager::instance().contents(directory.path() / "B.qr"));
    }
    EXPECT_EQ(opens.collect(), (std::map<std::string, int>{{"B.qr", 1}}));
    SourceManager::instance().clear();
}

TEST(SourceManagerTest, KeepsBytesExactlyIncludingNulAndCarriageReturns) {
    TemporaryDirectory directory;
    std::string text("a\r\nb\0c", 6);
    writeFile(directory.path() / "bytes.qr", text);
    auto read = SourceManager::instance().contents(directory.path() / "bytes.qr");
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, text);
    auto empty = directory.path() / "empty.qr";
    writeFile(empty, "");
    auto none = SourceManager::instance().contents(empty);
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
    SourceManager::instance().clear();
}

TEST(SourceManagerTest, UnreadableGivesAnEmptyHandleThatIsNotRemembered) {
    TemporaryDirectory directory;
    fs::path file = directory.path() / "Later.qr";
    EXPECT_FALSE(SourceManager::instance().contents(file));
    EXPECT_FALSE(SourceManager::instance().contents(directory.path()));
    writeFile(file, "now here");
    auto text = SourceManager::instance().contents(file);
    ASSERT_TRUE(text);
    EXPECT_EQ(*text, "now here");
    SourceManager::instance().clear();
}

TEST(SourceManagerTest, ConcurrentRequestsReadOnceAndAgree) {
    TemporaryDirectory directory;
    std::string big(1 << 20, 'x');
    for (int i = 0; i < 8; ++i) {
        writeFile(directory.path() / ("F" + std::to_string(i) + ".qr"), big + std::to_string(i));
    }
    OpenCounter opens(directory.path());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 8; ++i) {
                auto text = SourceManager::instance().contents(directory.path() /
                                                               ("F" + std::to_string(i) + ".qr"));
                if (!text || *text != big + std::to_string(i)) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    std::map<std::string, int> counts = opens.collect();
    EXPECT_EQ(counts.size(), 8u);
    for (const auto& [name, count] : counts) {
        EXPECT_EQ(count, 1) << name;
    }
    SourceManager::instance().clear();
}

} // namespace
