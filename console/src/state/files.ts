/** What leaves the page as a file. */
export function saveAs(blob: Blob, name: string): void {
  const link = document.createElement('a')
  link.href = URL.createObjectURL(blob)
  link.download = name
  link.click()
  setTimeout(() => URL.revokeObjectURL(link.href), 10_000)
}

/** RFC 4180; what a spreadsheet would take for a formula is told as text. */
function cell(value: unknown): string {
  if (value === null || value === undefined) return ''
  const plain = typeof value === 'string' && /^[=+\-@\t\r]/.test(value) ? `'${value}` : String(value)
  return /[",\r\n]/.test(plain) ? `"${plain.replaceAll('"', '""')}"` : plain
}

export function toCsv<T extends object>(columns: (keyof T & string)[], rows: T[]): string {
  return [columns.join(','), ...rows.map((row) => columns.map((column) => cell(row[column])).join(','))].join('\r\n') + '\r\n'
}
