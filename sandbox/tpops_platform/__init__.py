"""The sandbox's management platform: its REST interface, and the database instances behind it."""
