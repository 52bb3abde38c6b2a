# Prepares a file for Doxygen, which calls it with the file's name. In Markdown it gives every heading a name that is
# unique among all pages, FILE-HEADING, turns links to headings into references to these, and leaves the text alone of
# links to what is no page of the reference. In headers it repeats a comment above each of the declarations that follow it
# without an empty line, since it is about all of them, and says of what is defaulted or deleted what that means.

FNR == 1 {
    base = FILENAME
    sub(/.*\//, "", base)
    isPage = sub(/\.md$/, "", base)
    inCode = 0
    comment = previous = ""
    ended = 0
}

# The name that a link to this heading uses.
function slug(title)
{
    title = tolower(title)
    gsub(/[^a-z0-9 _-]/, "", title)
    gsub(/ /, "-", title)
    return title
}

function target(link)
{
    if (link ~ /^#/)
        return "@ref " base "-" substr(link, 2)
    if (link ~ /^[a-z-]+\.md#/) {
        sub(/\.md#/, "-", link)
        return "@ref " link
    }
    return link ~ /^([a-z-]+\.md|\.\.\/SECURITY\.md|https?:.*)$/ ? link : ""
}

function linked(line,    done, text, link)
{
    while (match(line, /\[[^][]*\]\([^()]*\)/)) {
        text = substr(line, RSTART, RLENGTH)
        done = done substr(line, 1, RSTART - 1)
        line = substr(line, RSTART + RLENGTH)
        link = text
        sub(/^.*\]\(/, "", link)
        link = target(substr(link, 1, length(link) - 1))
        sub(/\]\(.*/, "", text)
        done = done (link == "" ? substr(text, 2) : text "](" link ")")
    }
    return done line
}

isPage && /^ *```/ { inCode = !inCode }
isPage && !inCode && /^##+ / {
    title = $0
    sub(/^#+ /, "", title)
    print $0 " {#" base "-" slug(title) "}"
    next
}
isPage && !inCode { print linked($0); next }
isPage { print; next }

# Headers: `comment` holds the lines above a declaration; what follows that without an empty line shares them.
function shares()
{
    return comment != "" && ended && match($0, /[^ ]/) == margin && $0 !~ /^ *(\/\/|#|[{}~]|(public|private|protected):)/ &&
        $0 !~ /= (default|delete);$|\/\/\/</
}

/^ *\/\/\// {
    comment = (previous ~ /^ *\/\/\// ? comment "\n" : "") $0
    print
    previous = $0
    ended = 0
    next
}
{
    if (shares()) {
        count = split(comment, lines, "\n")
        isParameter = 0
        for (i = 1; i <= count; i++) {
            if (lines[i] ~ /\/ @/)
                isParameter = lines[i] ~ /\/ @param/
            if (!isParameter)
                print lines[i]
        }
    }
    else if (ended || $0 ~ /^ *(\{|\}|$|~)/)
        comment = ""
    if ($0 ~ /= (default|delete);$/ && previous !~ /^ *\/\/\//) {
        comment = ""
        $0 = $0 ($0 ~ /delete;$/ ? "  ///< Not possible." : "  ///< As the compiler makes it.")
    }
    if (ended || previous ~ /^ *(\/\/\/|$)/)
        margin = match($0, /[^ ]/)
    ended = $0 ~ /[;}]( *\/\/.*)?$/
    previous = $0
    print
}
