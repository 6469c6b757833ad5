//===- ltmainloopmember.cpp - ltMainLoopMember ----------------------------===//
#include "ltmainloopmember.h"

ltMainLoopMember::~ltMainLoopMember() = default;
