// What the subcommands of vxfile share: exit statuses, argument conversion and the way a
// failure is told. Paths are the host's own (a relative one is taken from the current
// directory); vxfile knows nothing of device roots.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/log/Log.h"
#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"

namespace vx::vxfile {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// Operations that fail without an error record (a rejected containment, an unreadable file
// to digest) say why only in the installer log; the tool keeps those lines to show them.
class FailureLog : public LogSink {
 public:
  void Write(const LogRecord& record) override;
  std::vector<std::string> messages() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

struct Context {
  std::shared_ptr<FailureLog> failures;
  int* exitStatus = nullptr;
  // The chosen subcommand's work. It runs after parsing, once the log is set up from the
  // flags, so that a command's own log lines are never lost to the order of callbacks.
  std::function<void()>* pending = nullptr;
};

// Everything a subcommand's callback needs: where to report and what to set.
class Command {
 public:
  Command(const Context& context, std::string name) : context_(context), name_(std::move(name)) {}

  void succeed() const { *context_.exitStatus = kExitSuccess; }
  // Prints "vxfile NAME: <message>" and sets the failure status.
  void fail(const std::string& message) const;
  void fail(const ErrorRef& error) const;
  // A request that makes no sense; sets the usage status.
  void usage(const std::string& message) const;
  // The logged reasons, or `fallback` when nothing was logged.
  void failWithLoggedReason(const std::string& fallback) const;

 private:
  Context context_;
  std::string name_;
};

// Adds a subcommand whose `work` becomes the pending work when it is chosen.
CLI::App* AddCommand(CLI::App& app, const Context& context, const std::string& name,
                     const std::string& description, std::function<void(const Command&)> work);

FileURL PathArgument(const std::string& path, bool isDirectory = false);

// The tree walks (du, rm, cp, own) take directories from a shared queue with a pool of
// workers: -j N, as many as there are cores when not given (0).
void AddWorkersOption(CLI::App& command, unsigned& workers);
unsigned Workers(unsigned requested);

// One setup function per group of subcommands.
void AddTreeCommands(CLI::App& app, const Context& context);
void AddItemCommands(CLI::App& app, const Context& context);
void AddAttributeCommands(CLI::App& app, const Context& context);

}  // namespace vx::vxfile
