# Makes a manual page of Markdown as docs/ uses it: headings, paragraphs, lists, code, tables, bold type and links. The
# rows of a table become paragraphs, which fit any terminal: its first cell, and below it the others.
# Variables: name, section and what for its head, release and date for its foot, also for SEE ALSO.

# Characters that mean something to the formatter.
function escaped(text) {
    gsub(/\\/, "\\e", text)
    gsub(/'/, "\\(aq", text)
    gsub(/\^/, "\\(ha", text)
    gsub(/~/, "\\(ti", text)
    gsub(/–/, "\\(en", text)
    return text
}

function code(text) {
    text = escaped(text)
    gsub(/-/, "\\-", text)
    return text
}

# Every ** turns bold type on or off; code is bold as well. A sentence ends its line.
function prose(text,    parts, count, i, result) {
    gsub(/[.!?]\)? /, "&\n", text)
    count = split(escaped(text), parts, /\*\*/)
    result = parts[1]
    for (i = 2; i <= count; ++i) {
        bold = !bold
        result = result (bold ? "\\fB" : "\\fR") parts[i]
    }
    return result
}

# Breaks a line before column 80, and hides a full stop that begins one.
function folded(line,    words, count, i, column, result) {
    count = split(line, words, " ")
    for (i = 1; i <= count; ++i) {
        if (i > 1 && column + length(words[i]) >= 78) {
            result = result "\n"
            column = 0
        }
        if (words[i] ~ /^[.]/ && column == 0)
            words[i] = "\\&" words[i]
        result = result (column > 0 ? " " : "") words[i]
        column += length(words[i]) + 1
    }
    return result
}

# The text of a paragraph. Of a link only the words stay.
function formatted(text,    parts, count, i, result) {
    while (match(text, /\[[^]`[]+\]\([^)]+\)/)) {
        i = index(substr(text, RSTART), "](")
        text = substr(text, 1, RSTART - 1) substr(text, RSTART + 1, i - 2) substr(text, RSTART + RLENGTH)
    }
    bold = 0
    count = split(text, parts, /`/)
    for (i = 1; i <= count; ++i)
        result = result (i % 2 ? prose(parts[i]) : "\\fB" code(parts[i]) (bold ? "" : "\\fR"))
    count = split(result, parts, "\n")
    result = folded(parts[1])
    for (i = 2; i <= count; ++i)
        result = result "\n" folded(parts[i])
    return result
}

# Macros that part a block from what stands above, but not right under a heading.
function part(macro) {
    if (!under_heading)
        print macro
    under_heading = 0
}

function end_block() {
    if (block == "paragraph")
        part(".PP")
    if (block == "item")
        print ".IP \\(bu 2"
    if (block == "paragraph" || block == "item")
        print formatted(text)
    if (block == "fence" || block == "indented")
        print ".fi\n.RE"
    block = ""
}

function begin_block(kind) {
    end_block()
    if (!headed) { # what stands under the page's own title
        print ".SH DESCRIPTION"
        under_heading = 1
    }
    headed = 1
    block = kind
    if (kind == "fence" || kind == "indented") {
        part(".PP")
        print ".RS 4\n.nf"
    }
}

function print_heading(text) {
    sub(/^#+ /, "", text)
    print (/^## / ? ".SH " toupper(text) : ".SS " formatted(text))
    headed = under_heading = 1
}

function print_code(line) {
    print (line ~ /^[.]/ ? "\\&" : "") code(line)
}

function print_row(    cells, count, i) {
    gsub(/^\| *| *\|$/, "")
    count = split($0, cells, / *\| */)
    if (++row == 1)
        split($0, titles, / *\| */)
    if (row <= 2) # the titles and the line below them
        return
    if (tag_alone)
        print ".br"
    else
        part(".PP")
    print formatted(cells[1])
    tag_alone = cells[2] == "" # the next row's text is this one's too
    if (tag_alone)
        return
    print ".RS 4"
    for (i = 2; i <= count; ++i)
        if (cells[i] != "")
            print (i > 2 ? ".br\n" : "") (count > 2 ? "\\fI" titles[i] ":\\fR\n" : "") formatted(cells[i])
    print ".RE"
}

BEGIN {
    print ".TH " toupper(name) " " section " \"" date "\" \"libvandrel " release "\""
    print ".SH NAME\n" name " \\- " what
}
/^```/ { if (block == "fence") end_block(); else begin_block("fence"); next }
block == "fence" { print_code($0); next }
/^$/ { end_block(); next }
/^# / { next }
/^##/ { end_block(); print_heading($0); next }
/^\|/ { if (block != "table") { begin_block("table"); row = 0 } print_row(); next }
/^- / { begin_block("item"); text = substr($0, 3); next }
/^    / && (block == "" || block == "indented") {
    if (block == "")
        begin_block("indented")
    print_code(substr($0, 5))
    next
}
{
    sub(/^ +/, "")
    if (block == "") {
        begin_block("paragraph")
        text = $0
    } else
        text = text " " $0
}
END {
    end_block()
    print ".SH SEE ALSO\n" formatted(also)
}
