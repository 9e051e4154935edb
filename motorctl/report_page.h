// Parts of the page, made of page/ when motorctl is built.
#pragma once

namespace motorctl {

extern const char* const kPageStyle;
extern const char* const kPageBody;
extern const char* const kPageScripts;

}  // namespace motorctl
