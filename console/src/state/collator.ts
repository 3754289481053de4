/** Names in the order that people expect: "Room 9" before "Room 10". */
export const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: 'base' })
