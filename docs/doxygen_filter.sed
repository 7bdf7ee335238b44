# Turns the headers' plain comments into documentation comments for Doxygen, as it reads them:
# "// text" before a declaration documents it, "x;  // text" after a member documents the member.
# Lint markers are dropped; "@", "\", "#", "<" and ">" in comment text are taken literally.
s|[ ]*// NOLINT.*$||
/^[ ]*\/\/ /{
  s|\\|\\\\|g
  s|@|\\@|g
  s|#|\\#|g
  s|<|\\<|g
  s|>|\\>|g
  s|^\([ ]*\)// |\1/// |
}
/^[ ]*\/\/$/s|//|///|
/[;,{][ ]*\/\/ /{
  s|\(.*[;,{]\)[ ]*// \(.*\)$|\1 ///< \2|
}
