# Turns the linker's export list (written with --kill-at: "name = name@N @ordinal") into one
# that names the decorated symbols ("name@N @ordinal"), for dlltool --kill-at.
file(READ ${DEF} _text)
string(REGEX REPLACE "([A-Za-z_][A-Za-z0-9_]*) = [A-Za-z_][A-Za-z0-9_]*(@[0-9]+)" "\\1\\2"
       _text "${_text}")
file(WRITE ${DECORATED} "${_text}")
