import { get, patch, post } from './http'

export interface Me {
  id: number
  username: string
  name: string
  role: 'admin' | 'owner'
}

export interface Login {
  token: string
  expires: string
  account: Me
}

export const login = (username: string, password: string): Promise<Login> => post('/login', { username, password })
export const logout = (): Promise<void> => post('/logout')
export const me = (): Promise<Me> => get('/me')
export const rename = (name: string): Promise<Me> => patch('/me', { name })
export const changePassword = (old: string, fresh: string): Promise<void> =>
  post('/me/password', { old, new: fresh })
