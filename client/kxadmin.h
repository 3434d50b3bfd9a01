// kestrix-cli admin: the operator's commands, sent over the daemon's admin
// socket (a Unix stream socket on the daemon's machine):
//   admin leases                      every lease: key, client, intention,
//                                     duration, time left, age, path
//   admin revoke KEY | --client ADDR | --path FILE
//                                     end leases at once, as expiry would
//   admin stats                       the daemon's counters
// Options: --json (the daemon's answer as one JSON document), --socket PATH
// (default $KESTRIX_ADMIN_SOCKET, else /run/kestrixd/admin.sock).
#ifndef KESTRIX_CLIENT_KXADMIN_H_
#define KESTRIX_CLIENT_KXADMIN_H_

#include <string>

namespace CLI {
class App;
}

namespace kestrix::client {

// The command "admin" with its commands leases, revoke and stats, added to
// a command line.
class AdminCommands {
 public:
  explicit AdminCommands(CLI::App& app);
  // True when the command line named admin.
  bool given() const;
  // Runs the admin command given; its exit status: 0 done, 1 usage, 2 no
  // answer from the socket, 3 an error answer or nothing revoked.
  int Run();

 private:
  CLI::App* admin_;
  bool json_ = false;
  std::string socket_, key_, client_, path_;
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXADMIN_H_
