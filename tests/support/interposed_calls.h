#pragma once

/// Makes system calls of the code under test fail, so that the paths behind a failure run.
/// Link interposed_calls.cpp into the test program: its definitions stand before the C
/// library's.
namespace interposed {

/// errno that the next waits (epoll_wait() and poll()) fail with; 0 lets them through.
extern int wait_error;

/// The same for epoll_wait() alone, which a wait calls behind a poll() that found something.
extern int news_error;

/// errno that the next accept4() fails with; 0 lets it through. The client stays waiting.
extern int accept_error;

/// errno that the next recv() or recvmsg() on any descriptor fails with, once; 0 lets it through.
extern int recv_error_once;

/// How often each was called.
extern int recv_calls;
extern int recvmsg_calls;

/// Most bytes that one recvmsg() may bring; 0 for no limit.
extern int recvmsg_limit;

/// How often poll() was called.
extern int poll_calls;

/// How often sendmsg() was called. What is said of send() below holds for it, too.
extern int sendmsg_calls;

/// Most bytes that one send() may take; 0 for no limit.
extern int send_limit;

/// errno that the next send() on any descriptor fails with, once; 0 lets it through.
extern int send_error_once;

} // namespace interposed
