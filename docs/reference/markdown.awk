# Makes a document of this repository readable for Doxygen: headings get the names that links to them
# use (file-heading; the first heading of a file, the file's own), and links to documents become
# references, which Doxygen checks. Links to other files become plain text.
function slug(text) {
  text = tolower(text)
  gsub(/[^a-z0-9 _-]/, "", text)
  gsub(/ /, "-", text)
  return text
}
function page(path) {
  sub(/\.md$/, "", path)
  sub(/^.*\.\.\//, "", path)
  sub(/^docs\//, "", path)
  gsub(/\//, "-", path)
  return slug(path)
}
function target(link, at) {
  if (link ~ /^https?:/) return link
  if (link ~ /^#/) return "#" self "-" substr(link, 2)
  at = index(link, "#")
  if (at > 0) return "#" page(substr(link, 1, at - 1)) "-" substr(link, at + 1)
  return link ~ /\.md$/ ? "#" page(link) : ""
}
# An image keeps the name of its file alone: Doxygen looks for it in IMAGE_PATH.
function links(line, out, text, link) {
  out = ""
  while (match(line, /\[[^]]*\]\([^)]*\)/)) {
    text = link = substr(line, RSTART, RLENGTH)
    sub(/\]\(.*/, "", text)
    sub(/^\[/, "", text)
    sub(/^.*\]\(/, "", link)
    sub(/\)$/, "", link)
    if (RSTART > 1 && substr(line, RSTART - 1, 1) == "!") {
      sub(/^.*\//, "", link)
    } else {
      link = target(link)
    }
    out = out substr(line, 1, RSTART - 1) (link == "" ? "`" text "`" : "[" text "](" link ")")
    line = substr(line, RSTART + RLENGTH)
  }
  return out line
}
FNR == 1 {
  self = FILENAME
  sub(/^.*\/(tests|bench)\/README/, "&", self)
  root = ENVIRON["PWD"] "/"
  if (index(self, root) == 1) self = substr(self, length(root) + 1)
  self = page(self)
}
/^ *```/ { code = !code }
!code && /^#+ / {
  heading = $0
  sub(/^#+ /, "", heading)
  print $0 " {#" (/^# / ? self : self "-" slug(heading)) "}"
  next
}
{ print code ? $0 : links($0) }
