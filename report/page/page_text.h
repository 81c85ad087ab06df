// The page's own parts, as the build embeds them.
#pragma once

namespace report {

extern const char* const kPageHtml;  // with @NAME@ where the other parts go
extern const char* const kPageStyle;
extern const char* const kPageScript;

}  // namespace report
