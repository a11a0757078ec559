# Makes the list of calls of libvandrel(3), in Markdown, of the public headers: for each its own words, then its calls,
# each with the first sentence of what the header says about it.

function words_of(line) {
    sub(/^ *(\/\*\*|\*\/|\*) */, "", line)
    sub(/ *\*\/$/, "", line)
    return line
}

function first_sentence(text) {
    sub(/^ +/, "", text)
    return match(text, /[.]( |$)/) ? substr(text, 1, RSTART) : text
}

# The calls that stand together share the comment above them: only the last row carries it.
function print_calls(    i) {
    for (i = 1; i <= calls; ++i)
        print "| `" call[i] "` | " (i == calls ? first_sentence(comment) : "") " |"
    calls = 0
    comment = ""
}

FNR == 1 {
    name = FILENAME
    sub(/.*\//, "", name)
    print "\n### " name
    header_says = 1
}
/^\/\*\*/ { in_comment = 1 }
in_comment {
    if (header_says)
        print words_of($0)
    else
        comment = comment " " words_of($0)
    if (/\*\/$/) {
        if (header_says)
            print "| Call | |\n|---|---|"
        in_comment = header_says = 0
    }
    next
}
/^[a-z]/ && !/^(typedef|enum|extern "C"|struct [a-z_]+( {|;))/ { declaring = 1; declaration = "" }
declaring {
    line = $0
    sub(/^ +/, "", line)
    declaration = declaration (declaration == "" ? "" : " ") line
    if (/;/) {
        sub(/ *__attribute__.*/, "", declaration)
        sub(/;.*/, "", declaration)
        call[++calls] = declaration ";"
        declaring = 0
    }
    next
}
/^$|^}/ { print_calls() }
END { print_calls() }
