// SPDX-License-Identifier: MIT
#include "runeflow/capture/capture_session.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/platform/file_descriptor.h"
#include "runeflow/platform/semaphore_p.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using test::at;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Pipe {
  FileDescriptor reading;
  FileDescriptor writing;
  Pipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe(ends.data()), 0);
    reading.reset(ends[0]);
    writing.reset(ends[1]);
  }
  void write(std::string_view text) const {
    while (!text.empty()) {
      const auto size = ::write(writing.get(), text.data(), text.size());
      ASSERT_GT(size, 0);
      text.remove_prefix(static_cast<std::size_t>(size));
    }
  }
};

class Capturing : public testing::Test {
 protected:
  Capturing() { EventStore::open(path_, true, SourceDescriptor::logcat()); }
  static std::unique_ptr<RowDecoder> logcat() {
    return std::make_unique<LogcatDecoder>([] { return at(1'700'000'000); });
  }
  static std::string lines(int count, std::string_view stem = "line") {
    std::string text;
    for (int i = 1; i <= count; ++i) text += fmt::format("{} {}\n", stem, i);
    return text;
  }
  EventStore reopen() const { return *EventStore::open(path_, false, SourceDescriptor::logcat()); }
  std::vector<std::string> ask(const std::string& statement) const {
    return test::sql(path_, statement);
  }

  // Captures the stream `fd` and blocks until its reader has ended.
  void capture(CaptureSession& session, int fd) {
    session.run(fd, logcat, [this] { finished_.release(); });
    finished_.acquire();
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.file("a.db");
  test::CapturedLog log_;
  Semaphore finished_;
};

TEST_F(Capturing, everyCompleteRecordIsStoredInOrder) {
  Pipe pipe;
  CaptureSession session(path_, SourceDescriptor::logcat());
  const int fd = pipe.reading.release();
  session.run(fd, logcat, [this] { finished_.release(); });
  pipe.write(lines(30'000) + "unfinished");
  pipe.writing.reset();
  finished_.acquire();

  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
  EXPECT_THAT(ask("SELECT count(*), max(seq) FROM events"), ElementsAre("30000|30000"));
  EXPECT_THAT(ask("SELECT count(*) FROM events WHERE message <> 'line ' || seq"), ElementsAre("0"));
  EXPECT_THAT(ask("INSERT INTO events_fts(events_fts) VALUES('integrity-check')"), IsEmpty());
  const auto progress = session.progress();
  EXPECT_EQ(progress.rowsDecoded, 30'000);
  EXPECT_EQ(progress.rowsStored, 30'000);
  EXPECT_EQ(progress.rowsLost, 0);
  EXPECT_EQ(progress.bytesRead, static_cast<std::int64_t>(lines(30'000).size() + 10));
}

TEST_F(Capturing, fullBatchesAreStoredWhileTheStreamIsOpen) {
  Pipe pipe;
  CaptureSession session(path_, SourceDescriptor::logcat());
  session.run(pipe.reading.release(), logcat, [this] { finished_.release(); });
  pipe.write(lines(3'000));
  const auto stored = [&] { return session.progress().rowsStored; };
  for (int left = 2'000; left > 0 && stored() < 2'048; --left) ::usleep(5'000);
  EXPECT_GE(stored(), 2'048);
  EXPECT_GE(reopen().count(), 2'048);
  pipe.writing.reset();
  finished_.acquire();
  EXPECT_EQ(reopen().count(), 3'000);
}

TEST_F(Capturing, sizeCapIsKeptAndMayChangeInMidStream) {
  CaptureSession session(path_, SourceDescriptor::logcat());
  Pipe pipe;
  session.run(pipe.reading.release(), logcat, [this] { finished_.release(); });
  session.setMaxBytes(4'000'000);  // applies to the running reader, too
  pipe.write(lines(50'000, "a line that takes its room in the database"));
  pipe.writing.reset();
  finished_.acquire();
  auto store = reopen();
  EXPECT_GT(store.minSeq(), 10'000);
  EXPECT_THAT(ask("SELECT message FROM events ORDER BY seq DESC LIMIT 1"),
              ElementsAre("a line that takes its room in the database 50000"));
  EXPECT_LT(store.usedBytes(), 4'500'000);
  EXPECT_THAT(ask("INSERT INTO events_fts(events_fts) VALUES('integrity-check')"), IsEmpty());
}

TEST_F(Capturing, aReaderThatCannotStartLogsTheCauseAndFinishes) {
  const auto missing = folder_.file("missing.db");
  CaptureSession session(missing, SourceDescriptor::logcat());
  capture(session, -1);
  Pipe pipe;
  const int fd = pipe.reading.release();
  capture(session, fd);
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
  EXPECT_THAT(log_.lines(), ElementsAre("lifecycle: reader got an invalid descriptor; not starting",
                                        "lifecycle: reader could not open store at " + missing));
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(Capturing, readersOfOneSessionTakeTurns) {
  CaptureSession session(path_, SourceDescriptor::logcat());
  Pipe first;
  Pipe second;
  second.write("of the second\n");
  second.writing.reset();
  session.run(first.reading.release(), logcat, [this] { finished_.release(); });
  session.run(second.reading.release(), logcat, [this] { finished_.release(); });
  first.write("of the first\n");
  first.writing.reset();
  finished_.acquire();
  finished_.acquire();
  EXPECT_THAT(ask("SELECT message FROM events ORDER BY seq"),
              ElementsAre("of the first", "of the second"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Capturing, aNewReaderWaitsFiveSecondsForOneThatHangs) {
  CaptureSession session(path_, SourceDescriptor::logcat());
  Pipe hanging;
  session.run(hanging.reading.release(), logcat, [this] { finished_.release(); });
  Pipe next;
  next.write("x\n");
  next.writing.reset();
  const auto start = std::chrono::steady_clock::now();
  capture(session, next.reading.release());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_THAT(log_.lines(),
              ElementsAre("lifecycle: reader: previous reader did not finish within 5s; "
                          "proceeding"));
  hanging.writing.reset();
  finished_.acquire();
}

TEST_F(Capturing, aReaderOutlivesItsSessionOnAThreadWithNameStackAndBlockedSignals) {
  Pipe pipe;
  std::string name(16, '\0');
  std::size_t stackSize = 0;
  bool blocksInterrupt = false;
  {
    CaptureSession session(path_, SourceDescriptor::logcat());
    session.run(
        pipe.reading.release(),
        [&] {
          pthread_getname_np(pthread_self(), name.data(), name.size());
          pthread_attr_t attributes;
          pthread_getattr_np(pthread_self(), &attributes);
          pthread_attr_getstacksize(&attributes, &stackSize);
          pthread_attr_destroy(&attributes);
          sigset_t blocked;
          pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
          blocksInterrupt =
              sigismember(&blocked, SIGINT) == 1 && sigismember(&blocked, SIGSEGV) == 0;
          return logcat();
        },
        [this] { finished_.release(); });
  }
  pipe.write(lines(10));
  pipe.writing.reset();
  finished_.acquire();
  EXPECT_EQ(std::string_view(name.c_str()), "runeflow.log-re");
  EXPECT_GE(stackSize, std::size_t{4} << 20);
  EXPECT_TRUE(blocksInterrupt);
  EXPECT_EQ(reopen().count(), 10);
}

TEST_F(Capturing, aBatchThatCannotBeWrittenIsCountedAsLost) {
  ask("CREATE TRIGGER full BEFORE INSERT ON events WHEN new.message='line 1500' "
      "BEGIN SELECT RAISE(ABORT, 'no room'); END");
  Pipe pipe;
  pipe.write(lines(3'000));
  pipe.writing.reset();
  CaptureSession session(path_, SourceDescriptor::logcat());
  capture(session, pipe.reading.release());
  const auto progress = session.progress();
  EXPECT_EQ(progress.rowsDecoded, 3'000);
  EXPECT_GT(progress.rowsLost, 0);
  EXPECT_EQ(progress.rowsStored + progress.rowsLost, 3'000);
  EXPECT_EQ(reopen().count(), progress.rowsStored);
  EXPECT_THAT(log_.lines(), ElementsAre(HasSubstr("no room")));
}

TEST_F(Capturing, aQuietStreamIsFlushedOnlyIfTheHostAsksForIt) {
  for (const bool flushes : {false, true}) {
    Pipe pipe;
    CaptureSession session(path_, SourceDescriptor::logcat());
    session.setFlushesWhenQuiet(flushes);
    const auto before = reopen().count();
    session.run(pipe.reading.release(), logcat, [this] { finished_.release(); });
    pipe.write(lines(3));
    const auto storedInTime = [&] {
      for (int left = 60; left > 0 && session.progress().rowsStored < 3; --left) ::usleep(5'000);
      return session.progress().rowsStored;
    };
    if (flushes) {
      EXPECT_EQ(storedInTime(), 3);
    } else {
      EXPECT_LT(storedInTime(), 3);  // the first is stored at once if it arrives late
    }
    pipe.write(lines(2));
    pipe.writing.reset();
    finished_.acquire();
    EXPECT_EQ(session.progress().rowsStored, 5);
    EXPECT_EQ(reopen().count(), before + 5);
  }
}

TEST_F(Capturing, aBoundedTrimDeletesATenthAtMostAndKeepsUsedBytesBelowTheCap) {
  CaptureSession session(path_, SourceDescriptor::logcat());
  session.setMaxBytes(4 << 20);
  session.setTrimBytes(1 << 20);
  Pipe pipe;
  session.run(pipe.reading.release(), logcat, [this] { finished_.release(); });
  const std::string message(4'000, 'x');
  for (int i = 0; i < 5'000; ++i) pipe.write(fmt::format("{} {}\n", i, message));
  pipe.writing.reset();
  finished_.acquire();
  auto store = reopen();
  // A flush trims before the next batch comes, so the last batch may lie above the cap.
  EXPECT_LT(store.usedBytes(), (4 << 20) + 1'024 * 5'000);
  EXPECT_GT(store.count(), 500);
  EXPECT_EQ(store.maxSeq(), 5'000);
  EXPECT_THAT(ask("INSERT INTO events_fts(events_fts, rank) VALUES('integrity-check', 1)"),
              IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Capturing, trimsThatFailAreCounted) {
  ask("CREATE TRIGGER keep BEFORE DELETE ON events BEGIN SELECT RAISE(ABORT, 'kept'); END");
  for (const std::int64_t trimBytes : {0, 1'000'000}) {
    SCOPED_TRACE(trimBytes);
    CaptureSession session(path_, SourceDescriptor::logcat());
    session.setMaxBytes(1);
    session.setTrimBytes(trimBytes);
    Pipe pipe;
    pipe.write(lines(10));
    pipe.writing.reset();
    capture(session, pipe.reading.release());
    EXPECT_EQ(session.progress().rowsStored, 10);
    EXPECT_GE(session.progress().trimsFailed, 1);
  }
  EXPECT_THAT(log_.lines(), testing::Each(HasSubstr("trim: delete failed, rolling back: kept")));
}

// Decodes one row a call and throws at its third call.
struct ThrowingDecoder final : RowDecoder {
  explicit ThrowingDecoder(bool throwsNumber) : throwsNumber_(throwsNumber) {}
  std::vector<LogRow> consume(std::span<const std::uint8_t>) override {
    if (++calls_ < 3) return {test::row("decoded")};
    if (throwsNumber_) throw 7;
    throw std::runtime_error("no sense");
  }

 private:
  bool throwsNumber_;
  int calls_ = 0;
};

TEST_F(Capturing, whatWasDecodedBeforeAnExceptionIsStored) {
  CaptureSession session(path_, SourceDescriptor::logcat());
  for (const bool throwsNumber : {false, true}) {
    Pipe pipe;
    session.run(
        pipe.reading.release(), [=] { return std::make_unique<ThrowingDecoder>(throwsNumber); },
        [this] { finished_.release(); });
    for (int i = 0; i < 3; ++i) {
      const auto before = session.progress().bytesRead;
      pipe.write("x");
      while (session.progress().bytesRead == before) ::usleep(100);  // a call for each byte
    }
    pipe.writing.reset();
    finished_.acquire();
  }
  EXPECT_EQ(session.progress().rowsStored, 4);
  EXPECT_EQ(session.progress().readersFailed, 2);
  EXPECT_THAT(ask("SELECT message FROM events"),
              testing::ElementsAre("decoded", "decoded", "decoded", "decoded"));
  const std::string text = "lifecycle: reader: ended by an exception: ";
  EXPECT_THAT(log_.lines(), ElementsAre(text + "no sense", text + "not a std::exception"));
}

TEST_F(Capturing, aDatabaseThatIsDeletedEndsTheReaderAndCountsTheBatchAsLost) {
  Pipe pipe;
  CaptureSession session(path_, SourceDescriptor::logcat());
  session.setFlushesWhenQuiet(true);
  session.run(pipe.reading.release(), logcat, [this] { finished_.release(); });
  pipe.write(lines(5));
  while (session.progress().rowsStored < 5) ::usleep(1'000);
  std::filesystem::remove(path_);
  pipe.write(lines(3));
  finished_.acquire();
  EXPECT_EQ(session.progress().rowsStored, 5);
  EXPECT_EQ(session.progress().rowsLost, 3);
  EXPECT_EQ(session.progress().readersFailed, 1);
  EXPECT_THAT(log_.lines(),
              ElementsAre("lifecycle: reader: " + path_ + " was deleted or replaced; ending"));
}

}  // namespace
}  // namespace runeflow
