#!/bin/sh
# Sample system wrapper: logs what it was asked to do.
echo "syswrapper: $*"
