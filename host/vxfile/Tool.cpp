#include "host/vxfile/Tool.h"

#include <iostream>

#include "platform/files/WorkQueue.h"
#include "platform/log/EscapedText.h"

namespace vx::vxfile {

void FailureLog::Write(const LogRecord& record) {
  if (record.level > 3) return;
  std::lock_guard lock(mutex_);
  messages_.push_back(record.message);
}

std::vector<std::string> FailureLog::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

// Messages name items of the tree, whose names are anyone's: escaped.
void Command::fail(const std::string& message) const {
  std::cerr << "vxfile " << name_ << ": " << EscapedText(message) << "\n";
  *context_.exitStatus = kExitFailure;
}

void Command::usage(const std::string& message) const {
  std::cerr << "vxfile " << name_ << ": " << EscapedText(message) << "\n";
  *context_.exitStatus = kExitUsage;
}

void Command::fail(const ErrorRef& error) const {
  if (!error) return fail("failed");
  const std::string* message = error->localizedDescription();
  fail(message ? *message : Describe(*error));
}

void Command::failWithLoggedReason(const std::string& fallback) const {
  const std::vector<std::string> reasons = context_.failures->messages();
  if (reasons.empty()) return fail(fallback);
  for (const std::string& reason : reasons) fail(reason);
}

CLI::App* AddCommand(CLI::App& app, const Context& context, const std::string& name,
                     const std::string& description, std::function<void(const Command&)> work) {
  CLI::App* command = app.add_subcommand(name, description);
  command->callback([context, name, work = std::move(work)] {
    *context.pending = [context, name, work] { work(Command(context, name)); };
  });
  return command;
}

FileURL PathArgument(const std::string& path, bool isDirectory) {
  return FileURL::fileURLWithPath(path, isDirectory);
}

void AddWorkersOption(CLI::App& command, unsigned& workers) {
  command.add_option("-j,--workers", workers, "walk with N workers (default: one per core)")
      ->check(CLI::Range(1u, 256u));
}

unsigned Workers(unsigned requested) { return requested ? requested : DefaultWorkerCount(); }

}  // namespace vx::vxfile
