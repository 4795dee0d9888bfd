// Written next.
