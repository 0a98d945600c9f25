/* How a request fared, in words. What the operation itself answered is another matter, and it ran
 * only where the status is OK or REPLY_TOO_LONG. */
#ifndef MUND_STATUS_H
#define MUND_STATUS_H

/* X(name, words), by value from 0. BAD_VERSION and REFUSED are a socket's only. */
#define MUND_STATUSES(X)                              \
    X(OK, "ok")                                       \
    X(NO_SERVICE, "the service is not open")          \
    X(NO_OPERATION, "no such operation")              \
    X(BAD_LENGTH, "wrong length of the request")      \
    X(REPLY_TOO_LONG, "the reply does not fit")       \
    X(BAD_VERSION, "another version of the protocol") \
    X(REFUSED, "refused")                             \
    X(BUSY, "the engine holds as many bytes of requests as it may; try again later")

#endif
