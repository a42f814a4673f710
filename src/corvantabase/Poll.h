#pragma once
// The poll module: timer callbacks run on the thread that runs Poll_Loop (the
// main thread), one at a time. Registrations are named by callback, client
// data and the periodic flag, and removed by the same three.

#include "corvantabase/PollExitFlag.h"

#include <cstdint>
#include <mutex>

using PollerFunction = void (*)(void* clientData);

// The poll classes. Only the main class exists here.
enum PollClass : int { POLL_CLASS_MAIN = 0 };

// Results of Poll_CB_RTime.
constexpr int kPollSuccess = 0;
constexpr int kPollNotInitialized = 1; // Poll_InitDefault has not run, or Poll_Exit has
constexpr int kPollInvalidArgument = 2; // no callback, a negative delay, or a periodic delay of 0
constexpr int kPollOutOfMemory = 3;

// Brings the module up; a second call while it is up changes nothing.
void Poll_InitDefault();

// Tears the module down: drops every registration and makes a running loop
// return. Called from another thread it first waits for a callback in progress.
void Poll_Exit();

// Registers `callback(clientData)` to run after `delayUs` microseconds, and
// then every `delayUs` microseconds when `periodic`. When `lock` is given it is
// held around every run. Returns kPollSuccess or one of the codes above.
int Poll_CB_RTime(PollerFunction callback, void* clientData, int64_t delayUs, bool periodic, std::mutex* lock);

// Removes one registration of (callback, clientData, periodic) that has not
// fired yet (a periodic one: that has not been removed); true if it found one.
// Called from another thread while that callback runs, it returns only after
// the run; called from the callback itself it stops a periodic re-arming.
bool Poll_CB_RTimeRemove(PollerFunction callback, void* clientData, bool periodic);

// Runs due callbacks on the calling thread. With `loop` it waits for and runs
// callbacks until `exitFlag` is raised (never, when it is null) or the module
// is torn down; without `loop` it runs what is due now and returns. One loop
// at a time; only POLL_CLASS_MAIN is served.
void Poll_Loop(bool loop, PollExitFlag* exitFlag, PollClass pollClass);
