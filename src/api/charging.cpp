// (not yet written)
