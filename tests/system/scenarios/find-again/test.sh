#!/bin/bash
# Identifiers of every live volume, saved and read back, find the same volumes in a
# second, freshly built disk list.
exec "$FSIC_FIND_AGAIN"
