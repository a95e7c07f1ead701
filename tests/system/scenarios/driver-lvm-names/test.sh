#!/bin/bash
# Volumes are found under their device-mapper names (hyphens doubled); a group whose
# volumes are all inactive is listed without volumes.
exec "$FSIC_DRIVER"
