#include "Plausible.h"

#include <cerrno>
#include <cstring>

namespace zav::test {

using faults::Call;
using faults::kShort;

const std::vector<Plausible> kPlausible{
    {Call::kOpen, "open", {EMFILE, ENOSPC, EACCES, EROFS, EIO, ENOMEM, EINTR}},
    {Call::kRead, "read", {EIO, kShort, EINTR}},
    {Call::kWrite, "write", {ENOSPC, kShort, EIO, EINTR}},
    {Call::kSync, "fsync", {EIO, ENOSPC, EINTR}},
    {Call::kRename, "rename", {EIO, ENOSPC, EACCES, EROFS}},
    {Call::kUnlink, "unlink", {EIO, EACCES, EROFS}},
    {Call::kTruncate, "ftruncate", {EIO, ENOSPC, EINTR}},
    {Call::kChmod, "chmod", {EACCES, EROFS, EIO}},
    {Call::kStat, "stat", {EIO, EACCES, ENOMEM}},
    {Call::kMkdir, "mkdir", {ENOSPC, EROFS, EACCES, EIO}},
    {Call::kSocket, "socket", {EMFILE, ENOMEM, EACCES}},
    {Call::kBind, "bind", {EACCES, ENOSPC, EROFS, ENOMEM}},
    {Call::kListen, "listen", {ENOMEM, EACCES}},
    {Call::kAccept, "accept", {EMFILE, EAGAIN, EINTR, ENOMEM}},
    {Call::kReceive, "recv", {EINTR, kShort, ENOMEM, EAGAIN}},
    {Call::kSend, "send", {EINTR, kShort, ENOMEM, EAGAIN}},
    {Call::kFcntl, "fcntl", {EAGAIN, EINTR, EIO, EACCES}},
    {Call::kGetsockopt, "getsockopt", {ENOMEM, EACCES}},
    {Call::kSelect, "select", {EINTR, ENOMEM}},
    {Call::kThread, "pthread_create", {EAGAIN}},
#ifdef ZAV_FAULTY_MEMORY
    {Call::kMemory, "malloc", {ENOMEM}},
#endif
};

std::string NameOf(int error) {
  return error == kShort ? "short" : strerrorname_np(error);
}

}  // namespace zav::test
