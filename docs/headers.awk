# SPDX-License-Identifier: Apache-2.0
# Doxygen's filter for the headers. In these, one /// comment documents all the declarations below it,
# up to the next empty line, comment or closing brace. Doxygen needs a comment for each: this repeats
# it on the line of the declaration, so that line numbers stay those of the header. It also removes
# specialisations of the standard library's names, which Doxygen takes for the library's own.
function isNext() { return ended && indent == depth && !/^ *}/ }

{ match($0, /^ */); indent = RLENGTH }

/^ *\/\/\/( |$)/ {
    line = $0
    sub(/^ *\/\/\/ ?/, "", line)
    text = inComment ? text " \\ilinebr " line : line
    inComment = 1
    print
    next
}

/^template <> / { inSpecialisation = 1 }
inSpecialisation {
    inSpecialisation = !/;$/
    print ""
    next
}

inComment { # the first declaration, which has its comment
    inComment = 0
    inGroup = 1
    depth = indent
    ended = 0
}
/^ *$/ || /^ *\/\// || /^ *(public|protected|private):/ || indent < depth { inGroup = 0 }
inGroup && isNext() { $0 = "/** " text " */ " $0 }
{
    ended = /[;}]( *\/\/.*)?$/
    print
}
