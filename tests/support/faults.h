/* Which calls of the daemon fail at the moment. A test and the library that it preloads into the daemon (faults.c)
 * both map the file FAULTS_FILE, which holds one of these for each kind of call. */
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#define FAULTS_FILE "/tmp/faults"

enum fault_kind { /* opening includes streams and templates; forking includes vfork */
                  FAULT_ACCEPT,
                  FAULT_EPOLL_ADD,
                  FAULT_FORK,
                  FAULT_OPEN,
                  FAULT_PTHREAD_CREATE,
                  FAULT_SENDMSG,
                  FAULT_KINDS
};

struct fault {
  int error, skip, left,
      hits; /* its errno; calls that succeed first, that then fail (negative: all), that have failed */
};

#endif
