# Makes certmgr.toml(5) of the tables in docs/settings.md: each row a key with its default and meaning.
#
#     awk -f certmgr.toml.awk settings.md

function text(markdown,    parts, count, i, out) {
    gsub(/-/, "\\-", markdown)
    count = split(markdown, parts, "`")
    for (i = 1; i <= count; i++) out = out (i % 2 == 0 ? "\\fB" parts[i] "\\fR" : parts[i])
    return out
}

BEGIN {
    print ".TH CERTMGR.TOML 5 \"\" certmgr \"File Formats\""
    print ".SH NAME\ncertmgr.toml \\- settings of certmgrd and ikeauth"
    print ".SH DESCRIPTION"
    print "One TOML file. \\fBcertmgrd \\-\\-config \\fIFILE\\fB \\-\\-check\\fR says what is wrong in it, with line and suggestion."
    print "A file with an error is not used at all. Relative paths are taken from the folder of the file. Nobody but its owner"
    print "should be able to write it: it names libraries that are loaded.\n.PP"
    print "Every key is below; \\fIdocs/settings.md\\fR describes them at length."
}

/^##/ {
    section = $0
    gsub(/^#+ |`/, "", section)
}

/^\| `/ {
    if (section != "") print ".SH \"" section "\""
    section = ""
    columns = split($0, cell, / \| |^\| | \|$/)  # before the first one and after the last there is nothing
    print ".TP"
    key = text(cell[2])
    initial = columns == 5 ? cell[3] : ""
    if (initial == "required") {
        key = key " (required)"
    } else if (initial != "" && initial != "none" && initial != "see below") {
        key = key " (default " text(initial) ")"
    }
    print key
    print text(cell[columns - 1])
}

END {
    print ".SH SEE ALSO\n.BR certmgrd (8),\n.BR ikeauth (1)"
}
