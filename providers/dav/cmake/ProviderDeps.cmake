# Dependencies of the installed qkfl::davprovider, found before its target is imported.
find_dependency(CURL)
find_dependency(EXPAT)
