/* lv_arg.cpp - the stand-in value library: lvArg copies and releases. */
#include "lv_arg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

lvArg::lvArg(const char* text) : lvArg()
{
    if (text == nullptr)
        return;
    text_ = strdup(text);
    if (text_ != nullptr)
        type_ = kText;
}

int lvArg::assignFast(const lvArg& other)
{
    if (this == &other)
        return 0;
    type_ = other.type_;
    int_ = other.int_;
    text_ = nullptr;
    if (other.type_ != kText)
        return 0;
    text_ = strdup(other.text_);
    if (text_ == nullptr) {
        type_ = kEmpty;
        return -ENOMEM;
    }
    return 0;
}

void lvArg::releaseData()
{
    if (type_ == kText)
        free(text_);
    type_ = kEmpty;
    int_ = 0;
    text_ = nullptr;
}
