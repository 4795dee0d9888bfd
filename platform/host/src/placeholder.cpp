namespace velmar::host {}
