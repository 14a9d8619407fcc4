"""Shows what bricks said to each other: captures, read by tshark, as a page, as text, or to be played again."""
