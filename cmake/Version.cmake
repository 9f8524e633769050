# The version stands here alone; the build, the program and the packaging read it.
set(LUMVANE_VERSION 1.3.2)
# Four digits: the leading zero is part of what the program prints.
set(LUMVANE_BUILD_NUMBER 0147)
