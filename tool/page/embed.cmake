# Puts the page together: cmake -DOUT=FILE -P embed.cmake. The style and the script stand in it, and a
# browser runs them by their hashes alone.

# A hash as the policy's header wants it: base64.
function(base64_sha256 text result)
  string(SHA256 hex "${text}")
  set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
  set(coded "")
  foreach(at RANGE 0 60 6)
    string(SUBSTRING "${hex}" ${at} 6 digits)
    string(LENGTH "${digits}" length)
    if(length LESS 6)
      string(APPEND digits "00")
    endif()
    math(EXPR bits "0x${digits}")
    foreach(shift 18 12 6 0)
      math(EXPR six "(${bits} >> ${shift}) & 63")
      string(SUBSTRING "${alphabet}" ${six} 1 letter)
      string(APPEND coded "${letter}")
    endforeach()
  endforeach()
  # 32 bytes are 43 letters and a filler.
  string(SUBSTRING "${coded}" 0 43 coded)
  set(${result} "${coded}=" PARENT_SCOPE)
endfunction()

set(here ${CMAKE_CURRENT_LIST_DIR})
foreach(part html css js)
  file(READ ${here}/page.${part} ${part})
endforeach()
base64_sha256("${css}" css_hash)
base64_sha256("${js}" js_hash)
set(policy "default-src 'none'; script-src 'sha256-${js_hash}'; style-src 'sha256-${css_hash}'; connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'")
string(REPLACE "@POLICY@" "${policy}" html "${html}")
string(REPLACE "@CSS@" "${css}" html "${html}")
string(REPLACE "@JS@" "${js}" html "${html}")
file(WRITE ${OUT} "// Made from tool/page.
#include \"tool/watching/page.h\"

namespace polctl {

const char kPagePolicy[] = R\"PAGE(${policy}; frame-ancestors 'none')PAGE\";
const char kPage[] = R\"PAGE(${html})PAGE\";

}  // namespace polctl
")
