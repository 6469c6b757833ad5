//===- ltmainloop.cpp - ltMainLoop and the receiver interfaces ------------===//
#include "ltmainloop.h"

ltMainLoop::~ltMainLoop() = default;
ltTimerReceiver::~ltTimerReceiver() = default;
ltIOHandleReceiver::~ltIOHandleReceiver() = default;
