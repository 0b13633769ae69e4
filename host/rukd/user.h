// user.h - serving with the rights of a user who is not root.
#ifndef RUKD_USER_H
#define RUKD_USER_H

/**
 * Take a user's id and groups, and keep of root's rights only the capabilities that the link and
 * the real-time threads need. Programs that are started later have none of these, and cannot get
 * any, by set-user-id files neither.
 *
 * Before the first thread, as capabilities are a thread's. False: not all of that could be done,
 * which is told on standard error; the process is then to end.
 */
bool become_user(const char *name);

#endif
