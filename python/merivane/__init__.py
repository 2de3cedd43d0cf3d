"""merivane: Python tools around the merivane segmentation program."""
