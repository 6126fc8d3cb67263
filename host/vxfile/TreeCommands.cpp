// Commands that look at a tree or a file as a whole: du, digest, ls, own, contain.
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string_view>

#include "filemanager/VXFileManager.h"
#include "host/vxfile/OutputBuffer.h"
#include "host/vxfile/Tool.h"
#include "platform/log/EscapedText.h"
#include "support/FileDigest.h"

namespace vx::vxfile {
namespace {

const VXFileManager& FM() { return VXFileManager::defaultManager(); }

void AddDu(CLI::App& app, const Context& context) {
  struct Options {
    std::string path;
    unsigned workers = 0;
  };
  auto options = std::make_shared<Options>();
  CLI::App* du = AddCommand(app, context, "du", "bytes of storage the tree under PATH occupies",
                            [options](const Command& command) {
                              std::cout << FM().diskUsageForURL(PathArgument(options->path, true),
                                                                Workers(options->workers))
                                        << "\n";
                              command.succeed();
                            });
  du->add_option("PATH", options->path)->required();
  AddWorkersOption(*du, options->workers);
}

void AddDigest(CLI::App& app, const Context& context) {
  auto path = std::make_shared<std::string>();
  AddCommand(app, context, "digest", "SHA-256 of FILE's content, in hexadecimal",
             [path](const Command& command) {
               auto digest = VXCreateSHA256Digest(PathArgument(*path));
               if (!digest) {
                 // The file is opened without following a final link; the kernel's refusal
                 // ("too many levels of symbolic links") would hide why.
                 struct stat st {};
                 if (::lstat(path->c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
                   return command.fail(*path + " is a symbolic link, which is not followed");
                 }
                 return command.failWithLoggedReason("cannot read " + *path);
               }
               std::cout << *digest << "\n";
               command.succeed();
             })
      ->add_option("FILE", *path)
      ->required();
}

void AddLs(CLI::App& app, const Context& context) {
  struct Options {
    std::string directory;
    bool skipSymlinks = false;
  };
  auto options = std::make_shared<Options>();
  CLI::App* ls =
      AddCommand(app, context, "ls", "the names in DIR, one a line, in the directory's own order",
                 [options](const Command& command) {
                   // Names go out as they are read, in large writes: a directory of many
                   // thousands of entries is never held whole.
                   OutputBuffer out(STDOUT_FILENO);
                   ErrorRef error;
                   const bool listed = FM().forEachItemInDirectoryAtURL(
                       PathArgument(options->directory, true), options->skipSymlinks,
                       [&out](std::string_view name, bool) { out.line(name); }, &error);
                   out.flush();  // as the stream it replaces, a failed write is not told
                   if (!listed) return command.fail(error);
                   command.succeed();
                 });
  ls->add_option("DIR", options->directory)->required();
  ls->add_flag("--skip-symlinks", options->skipSymlinks, "leave symbolic links out");
}

void AddOwn(CLI::App& app, const Context& context) {
  struct Options {
    std::string root;
    uid_t uid = 0;
    gid_t gid = 0;
    unsigned workers = 0;
  };
  auto options = std::make_shared<Options>();
  CLI::App* own =
      AddCommand(app, context, "own",
                 "give every item under ROOT to UID:GID, refusing symbolic links that lead outside",
                 [options](const Command& command) {
                   ErrorRef error;
                   if (!FM().standardizeOwnershipAndValidateSymlinksAtURL(
                           PathArgument(options->root, true), options->uid, options->gid,
                           Workers(options->workers), &error)) {
                     return command.fail(error);
                   }
                   command.succeed();
                 });
  own->add_option("ROOT", options->root)->required();
  own->add_option("UID", options->uid)->required();
  own->add_option("GID", options->gid)->required();
  AddWorkersOption(*own, options->workers);
}

void AddContain(CLI::App& app, const Context& context) {
  struct Options {
    std::string path;
    std::string base;
  };
  auto options = std::make_shared<Options>();
  CLI::App* contain = AddCommand(
      app, context, "contain", "the real path of PATH when it lies inside BASE",
      [options](const Command& command) {
        auto real = FM().realPathForURL(PathArgument(options->path), PathArgument(options->base));
        if (!real)
          return command.failWithLoggedReason(options->path + " is not inside " + options->base);
        std::cout << EscapedText(real->path()) << "\n";
        command.succeed();
      });
  contain->add_option("PATH", options->path)->required();
  contain->add_option("BASE", options->base)->required();
}

}  // namespace

void AddTreeCommands(CLI::App& app, const Context& context) {
  AddDu(app, context);
  AddDigest(app, context);
  AddLs(app, context);
  AddOwn(app, context);
  AddContain(app, context);
}

}  // namespace vx::vxfile
