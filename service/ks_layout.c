// Checks the public header: it must compile as strict C11, and the records whose fields clients read must keep their
// layout, because a library and its clients may be built at different times. The layout is the same on both processors
// that the daemon ships for.
#include <stddef.h>

#include "service/ks.h"

#define AT(record, field, offset) _Static_assert(offsetof(record, field) == (offset), #record "." #field)

AT(ks_io, magic, 0);
AT(ks_io, memfd, 4);
AT(ks_io, sockfd, 8);
AT(ks_io, extra_fd, 12);
AT(ks_io, request_name, 16);
AT(ks_io, user_data, 280);
AT(ks_io, shared_data, 288);
AT(ks_io, shared_size, 296);
AT(ks_io, peer_pid, 304);
AT(ks_io, peer_uid, 308);
AT(ks_io, peer_gid, 312);
_Static_assert(sizeof(ks_io) == 320, "ks_io");

AT(ks_handle, magic, 0);
AT(ks_handle, paused, 4);
AT(ks_handle, stopping, 5);
AT(ks_handle, sockfile, 6);
AT(ks_handle, name, 71);
AT(ks_handle, mode, 136);
AT(ks_handle, service_size, 144);
AT(ks_handle, exec, 152);
AT(ks_handle, init_hook, 160);
AT(ks_handle, fini_hook, 176);
AT(ks_handle, worker, 192);
_Static_assert(sizeof(ks_handle) == 200, "ks_handle");

AT(ks_epoll, fd, 4);
_Static_assert(sizeof(ks_epoll) == 8, "ks_epoll");
