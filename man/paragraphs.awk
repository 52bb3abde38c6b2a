# scdoc asks for a paragraph at places where there is none: after each heading, before each heading, at the end of each
# indented text. Here it stands only before text. And it forbids hyphens before the title, where groff forgets that.
/^\.TH / { print; print ".nh"; next }
/^\.P$/ { paragraph = 1; next }
/^\.RE$/ { print; heading = 0; next }
/^\.S[HS] / { print; heading = 1; paragraph = 0; next }
paragraph && !heading { print ".P" }
{ print; heading = 0; paragraph = 0 }
