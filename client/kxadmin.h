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

namespace kestrix::client {

// True when the command line is an admin command (its first word that is
// not an option is "admin"); *exitStatus is then the command's status:
// 0 done, 1 usage, 2 no answer from the socket, 3 an error answer or
// nothing revoked.
bool RunAdminCommand(int argc, char** argv, int* exitStatus);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXADMIN_H_
