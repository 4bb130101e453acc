import collections
Fault = collections.namedtuple("Fault", "name source edits scenarios unnoticed")
FAULTS = []
