"""What the report is made of: measurements of a package through the built program."""
