// fake_semaphore.h - the board's semaphore, played by the test.
//
// Linked with --wrap=semget,semctl,semop: every call lands in a list, and can be made to fail.
#ifndef TESTS_UNIT_STAND_INS_FAKE_SEMAPHORE_H
#define TESTS_UNIT_STAND_INS_FAKE_SEMAPHORE_H

#include <string>
#include <vector>

constexpr int kSemaphoreId = 77; // what semget gives

/** No calls so far, no failures armed. */
void semaphore_reset();

/** The calls so far, as "get KEY COUNT FLAGS" (octal flags), "set ID VALUE", "remove ID" and
 *  "change ID BY" ("change ID BY kept" without SEM_UNDO); then the list is empty. */
std::vector<std::string> semaphore_calls();

/** Make the next call of this kind ("get", "set", "remove", "change") fail with errno; 0: let it
 * pass. */
void semaphore_fail_next(const std::string &kind, int error);

#endif
