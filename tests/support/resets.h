// The daemon's shared state, put back for the next test or fuzz input.
#pragma once

// As in a process that has just started: flags, settings, project data, queues, start point, what came from
// modem and GPS receiver, and a modem that owes nothing. While no other thread uses any of it.
void resetDaemonState();
