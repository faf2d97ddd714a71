#include "linux/statedb/KeptState.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <utility>

#include "linux/files/InputFile.h"
#include "linux/files/OwnFiles.h"

namespace LinuxPlatform {

namespace {

constexpr std::size_t mostBytes = std::size_t{1} << 30;

std::string stateFile(const std::string& runDirectory) {
  return runDirectory + "/state.json";
}

std::string refused(const std::string& name) {
  return name + ": " + std::strerror(errno);
}

bool writeAll(int fd, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t count = write(fd, text.data() + at, text.size() - at);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += static_cast<std::size_t>(count);
  }
  return true;
}

// The names in a directory are on the disk when the directory is.
void syncDirectoryOf(const std::string& file) {
  const FileDescriptor directory(open(file.substr(0, file.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) fsync(directory.get());
}

// Why it could not, in one line; empty: it is done. At any moment one of the two names leads to a complete file.
std::string replaceFile(const std::string& file, const std::string& text) {
  const std::string made = file + ".new";
  const std::string old = file + ".old";
  {
    const OpenFile target = createAfresh(made, readableMode);
    if (!target.fd) return target.fault;
    if (!writeAll(target.fd.get(), text) || fsync(target.fd.get()) != 0) {
      std::string fault = refused(made);
      unlink(made.c_str());
      return fault;
    }
  }
  if (rename(file.c_str(), old.c_str()) != 0 && errno != ENOENT) return refused(old);
  if (rename(made.c_str(), file.c_str()) != 0) return refused(file);
  syncDirectoryOf(file);
  return {};
}

}  // namespace

std::optional<KeptState> readKeptState(const std::string& runDirectory, const Lattis::EntityTypes& types,
                                       const PathTypes& pathTypes, std::vector<std::string>& faults) {
  for (const std::string& name : {stateFile(runDirectory), stateFile(runDirectory) + ".old"}) {
    const OpenFile file = openToRead(name);
    if (!file.fd) {
      if (!file.fault.empty()) faults.push_back(file.fault);
      continue;
    }
    try {
      return KeptState{parseScenario(readInput(name, mostBytes), name, types, pathTypes), name};
    } catch (const Platform::BadText& error) {
      faults.emplace_back(error.what());
    }
  }
  return std::nullopt;
}

void forgetKeptState(const std::string& runDirectory) {
  for (const char* suffix : {".old", ""}) unlink((stateFile(runDirectory) + suffix).c_str());
}

StateKeeper::StateKeeper(EmbeddedStateDb& db, Platform::TaskScheduler& scheduler, const std::string& runDirectory,
                         std::set<std::string, std::less<>> derived)
    : db_(db),
      file_(stateFile(runDirectory)),
      derived_(std::move(derived)),
      task_(scheduler.taskIs("stateKeepingTask", Platform::TaskPriority::background, [this] { keep(); })) {
  db_.changedIs([this] { handleChange(); });
}

StateKeeper::~StateKeeper() {
  db_.changedIs(nullptr);
  if (written_.valid()) takeOutcome();
  if (!changed_ && !making_ && text_.empty()) return;
  begin();
  while (making_->step(text_)) {
  }
  const std::string fault = replaceFile(file_, text_);
  if (!fault.empty()) std::cerr << fault << "; the last changes are lost" << std::endl;
}

void StateKeeper::handleChange() {
  changed_ = true;
  task_->scheduleWithin(interval);
}

bool StateKeeper::isWriting() const {
  return written_.valid() && written_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

// Told once, until it is another or has ended.
void StateKeeper::takeOutcome() {
  std::string fault = written_.get();
  if (!fault.empty()) changed_ = true;  // that text is not on the disk
  if (!fault.empty() && fault != fault_) {
    std::cerr << fault << "; changes are kept here and written when they can be" << std::endl;
  }
  fault_ = std::move(fault);
}

void StateKeeper::begin() {
  Lattis::Entities kept;
  for (const auto& [path, entity] : db_.databaseEntities()) {
    if (!derived_.contains(path)) kept.emplace(path, entity);
  }
  making_.emplace(kept);
  text_.clear();
  changed_ = false;
}

void StateKeeper::keep() {
  if (isWriting()) return task_->scheduleWithin(interval);
  if (written_.valid()) takeOutcome();
  if (!making_) {
    if (!changed_) return;
    begin();
  }
  std::uint64_t fields = 0;
  while (making_->step(text_)) {
    ++fields;
    if (task_->shouldYield()) {
      task_->workCountIs(fields);
      return task_->scheduleWithin(0);
    }
  }
  task_->workCountIs(fields);
  making_.reset();
  written_ = std::async(std::launch::async,
                        [file = file_, text = std::exchange(text_, {})] { return replaceFile(file, text); });
  task_->scheduleWithin(interval);
}

}  // namespace LinuxPlatform
