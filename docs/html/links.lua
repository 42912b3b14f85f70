-- Links between the manuals, written for the sources' folders, as the archive needs them: every manual is
-- one HTML file beside the others.
function Link(link)
  local file, anchor = link.target:match("^([^#:]+%.md)(#?.*)$")
  if file then
    local name = file:match("([^/]+)%.md$")
    link.target = (name == "README" and "index" or name) .. ".html" .. anchor
  end
  return link
end
