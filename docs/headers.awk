# SPDX-License-Identifier: Apache-2.0
# Doxygen's filter for the headers. There, one /// comment stands for all the declarations under it,
# up to the next empty line, comment or closing brace. Doxygen wants a comment for each: this repeats
# it, on the declaration's own line, so that the numbers of the lines stay those of the header. And
# it leaves out specialisations of the standard library's names, which Doxygen looks for in ours.
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
